#include "base/Format.h"

#include <cstdio>

FormatArg::FormatArg(const std::vector<std::string>& list) : _kind(Kind::List), _text(1, '(') {
    for (size_t i = 0; i < list.size(); ++i) {
        _text += "\n    ";
        _text += list[i];
        if (i + 1 < list.size())
            _text += ",";
    }
    _text += list.empty() ? ")" : "\n)";
}

namespace {

bool IsFlag(char c) {
    return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0';
}

bool IsLength(char c) {
    return c == 'h' || c == 'l' || c == 'q' || c == 'L' || c == 'z' || c == 'j' || c == 't';
}

bool IsConversion(char c) {
    switch (c) {
    case '@':
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 's':
    case 'c':
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'p':
        return true;
    default:
        return false;
    }
}

// Pads text to the width of the directive ("%-10@", "%5s"), as printf pads strings.
std::string PadText(const std::string& text, std::string_view flagsAndWidth) {
    bool left = false;
    size_t width = 0;
    for (char c : flagsAndWidth) {
        if (c == '-')
            left = true;
        else if (c >= '0' && c <= '9')
            width = width * 10 + static_cast<size_t>(c - '0');
        else if (c == '.')
            break;
    }
    if (text.size() >= width)
        return text;
    std::string pad(width - text.size(), ' ');
    return left ? text + pad : pad + text;
}

std::string FormatNumber(std::string spec, char conversion, const FormatArg& arg) {
    // spec holds the flags, width and precision; the length modifier is ours to choose.
    char buffer[128];
    switch (conversion) {
    case 'd':
    case 'i':
    case 'c': {
        long long v = arg.kind() == FormatArg::Kind::Unsigned
                          ? static_cast<long long>(arg.unsignedValue())
                          : arg.signedValue();
        if (arg.kind() == FormatArg::Kind::Double)
            v = static_cast<long long>(arg.doubleValue());
        spec += conversion == 'c' ? "c" : "lld";
        if (conversion == 'c')
            std::snprintf(buffer, sizeof buffer, spec.c_str(), static_cast<int>(v));
        else
            std::snprintf(buffer, sizeof buffer, spec.c_str(), v);
        break;
    }
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'p': {
        unsigned long long v = arg.kind() == FormatArg::Kind::Unsigned
                                   ? arg.unsignedValue()
                                   : static_cast<unsigned long long>(arg.signedValue());
        if (arg.kind() == FormatArg::Kind::Double)
            v = static_cast<unsigned long long>(arg.doubleValue());
        spec += "ll";
        spec += conversion == 'p' ? 'x' : conversion;
        std::snprintf(buffer, sizeof buffer, spec.c_str(), v);
        break;
    }
    default: { // floating conversions
        double v = arg.doubleValue();
        if (arg.kind() == FormatArg::Kind::Signed)
            v = static_cast<double>(arg.signedValue());
        else if (arg.kind() == FormatArg::Kind::Unsigned)
            v = static_cast<double>(arg.unsignedValue());
        spec += conversion;
        std::snprintf(buffer, sizeof buffer, spec.c_str(), v);
        break;
    }
    }
    return buffer;
}

std::string DescribeArg(const FormatArg& arg) {
    switch (arg.kind()) {
    case FormatArg::Kind::Null:
        return "(null)";
    case FormatArg::Kind::String:
    case FormatArg::Kind::List:
        return arg.text();
    case FormatArg::Kind::Signed:
        return std::to_string(arg.signedValue());
    case FormatArg::Kind::Unsigned:
        return std::to_string(arg.unsignedValue());
    case FormatArg::Kind::Double: {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, "%g", arg.doubleValue());
        return buffer;
    }
    }
    return {};
}

} // namespace

std::string FormatWithArgs(std::string_view format, std::span<const FormatArg> args) {
    std::string out;
    out.reserve(format.size() + 16);
    size_t next = 0;
    size_t i = 0;
    while (i < format.size()) {
        char c = format[i];
        if (c != '%') {
            out += c;
            ++i;
            continue;
        }
        if (i + 1 < format.size() && format[i + 1] == '%') {
            out += '%';
            i += 2;
            continue;
        }
        // Parse "%[flags][width][.precision][length]conversion".
        size_t j = i + 1;
        while (j < format.size() && IsFlag(format[j]))
            ++j;
        while (j < format.size() && format[j] >= '0' && format[j] <= '9')
            ++j;
        if (j < format.size() && format[j] == '.') {
            ++j;
            while (j < format.size() && format[j] >= '0' && format[j] <= '9')
                ++j;
        }
        size_t lengthStart = j;
        while (j < format.size() && IsLength(format[j]))
            ++j;
        if (j >= format.size() || !IsConversion(format[j])) {
            // Not a directive we know: keep the text as written.
            out += format.substr(i, j - i);
            i = j;
            continue;
        }
        char conversion = format[j];
        std::string_view directive = format.substr(i, j + 1 - i);
        std::string flagsAndWidth(format.substr(i + 1, lengthStart - i - 1));
        i = j + 1;
        if (next >= args.size()) {
            out += directive;
            continue;
        }
        const FormatArg& arg = args[next++];
        bool textual = arg.kind() == FormatArg::Kind::String ||
                       arg.kind() == FormatArg::Kind::List || arg.kind() == FormatArg::Kind::Null;
        if (conversion == '@' || conversion == 's' || textual)
            out += PadText(DescribeArg(arg), flagsAndWidth);
        else
            out += FormatNumber("%" + flagsAndWidth, conversion, arg);
    }
    return out;
}
