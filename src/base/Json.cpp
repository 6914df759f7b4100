#include "base/Json.h"

#include <cstdio>

namespace {

// The length of the UTF-8 sequence at text[at], 0 when it is not a valid one.
size_t Utf8SequenceLength(std::string_view text, size_t at) {
    const auto byte = [&text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    size_t length;
    unsigned minimum;
    unsigned value;
    if (lead < 0x80)
        return 1;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, minimum = 0x80, value = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, minimum = 0x800, value = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, minimum = 0x10000, value = lead & 0x07;
    } else {
        return 0;
    }
    if (at + length > text.size())
        return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80)
            return 0;
        value = (value << 6) | (byte(at + i) & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return 0;
    return length;
}

} // namespace

std::string JsonQuoted(std::string_view text) {
    std::string quoted = "\"";
    for (size_t at = 0; at < text.size();) {
        const char c = text[at];
        const size_t length = Utf8SequenceLength(text, at);
        if (length == 0) {
            quoted += "\\ufffd";
            ++at;
            continue;
        }
        if (length > 1) {
            quoted.append(text.substr(at, length));
            at += length;
            continue;
        }
        ++at;
        switch (c) {
        case '"':
            quoted += "\\\"";
            break;
        case '\\':
            quoted += "\\\\";
            break;
        case '\n':
            quoted += "\\n";
            break;
        case '\r':
            quoted += "\\r";
            break;
        case '\t':
            quoted += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
                quoted += escape;
            } else {
                quoted += c;
            }
        }
    }
    return quoted + "\"";
}
