#pragma once

#include <algorithm>
#include <string_view>

namespace orvx::utility {

/// The lower-case form of an ASCII letter; any other byte unchanged. Ignores the process's locale.
constexpr char toLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool isAlphanumeric(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// Whether the text consists of digits, at least one.
inline bool isDecimal(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isDigit);
}

/// Whether two texts are equal when the case of ASCII letters is ignored.
inline bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return toLower(a) == toLower(b); });
}

}  // namespace orvx::utility
