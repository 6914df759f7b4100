#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

// A type-safe printf-style formatter that takes the log and message texts as they are
// written ("%@", "%d", "%o", "%s", "%u", "%%" and friends). Every value is converted by its
// static type, never by trusting the format, so a wrong specifier prints the value readably
// instead of reading garbage, and a value is never itself used as a format.
//
// "%@" prints any value: strings as they are, numbers in decimal, absent values and null
// strings as "(null)", lists as "(\n    a,\n    b\n)". A specifier without a value is written
// as it stands; values beyond the last specifier are ignored.

class FormatArg {
public:
    enum class Kind { Null, String, Signed, Unsigned, Double, List };

    FormatArg() = default;
    FormatArg(std::nullptr_t) {}
    FormatArg(const char* s) {
        if (s) {
            _kind = Kind::String;
            _text = s;
        }
    }
    FormatArg(std::string_view s) : _kind(Kind::String), _text(s) {}
    FormatArg(const std::string& s) : _kind(Kind::String), _text(s) {}
    FormatArg(bool b) : _kind(Kind::Signed), _signed(b ? 1 : 0) {}
    FormatArg(char c) : _kind(Kind::Signed), _signed(c) {}
    template <std::signed_integral T> FormatArg(T v) : _kind(Kind::Signed), _signed(v) {}
    template <std::unsigned_integral T>
    requires(!std::same_as<T, bool>) FormatArg(T v) : _kind(Kind::Unsigned), _unsigned(v) {}
    template <std::floating_point T> FormatArg(T v) : _kind(Kind::Double), _double(v) {}
    template <typename T> FormatArg(const std::optional<T>& v) {
        if (v)
            *this = FormatArg(*v);
    }
    FormatArg(const std::vector<std::string>& list);
    // Objects that describe themselves, as "%@" expects.
    template <typename T>
    requires requires(const T& t) {
        { t.description() } -> std::convertible_to<std::string>;
    }
    FormatArg(const T& object) : _kind(Kind::String), _text(object.description()) {}

    Kind kind() const { return _kind; }
    const std::string& text() const { return _text; }
    long long signedValue() const { return _signed; }
    unsigned long long unsignedValue() const { return _unsigned; }
    double doubleValue() const { return _double; }

private:
    Kind _kind = Kind::Null;
    std::string _text;
    long long _signed = 0;
    unsigned long long _unsigned = 0;
    double _double = 0;
};

std::string FormatWithArgs(std::string_view format, std::span<const FormatArg> args);

template <typename... Args>
std::string StringWithFormat(std::string_view format, const Args&... args) {
    if constexpr (sizeof...(Args) == 0) {
        return FormatWithArgs(format, {});
    } else {
        const FormatArg list[] = {FormatArg(args)...};
        return FormatWithArgs(format, std::span<const FormatArg>(list, sizeof...(Args)));
    }
}
