// Decides whether a path is below another path. A target with two meanings, for example to a reader
// that decodes twice or resolves `..`, is refused, so that no normalisation is needed. Thread-safe:
// there is no state.

#include "PathScope.h"

#include <charconv>
#include <nlohmann/json.hpp>

namespace orvx::registry {

namespace {

bool isPlain(char letter) {
    return static_cast<unsigned char>(letter) >= 0x20 && letter != 0x7f && letter != '\\';
}

/// Decodes the escapes of a segment. Returns false if an escape is invalid or forbidden, or if
/// plainPath() refuses the result.
bool decode(std::string_view segment, std::string& decoded) {
    for (std::size_t at = 0; at < segment.size(); ++at) {
        if (segment[at] != '%') {
            decoded += segment[at];
            continue;
        }
        unsigned char byte = 0;
        const char* const digits = segment.data() + at + 1;
        if (segment.size() - at < 3 ||
            std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2 || byte == '/' ||
            byte == '%') {
            return false;
        }
        decoded += static_cast<char>(byte);
        at += 2;
    }
    for (const char letter : decoded) {
        if (!isPlain(letter)) {
            return false;
        }
    }
    const std::string name = decoded.substr(0, decoded.find(';'));  // some readers cut it there
    return !name.empty() && name != "." && name != "..";
}

bool isUtf8(const std::string& text) {
    try {
        nlohmann::json(text).dump();
        return true;
    } catch (const nlohmann::json::type_error&) {
        return false;
    }
}

}  // namespace

std::optional<std::string> plainPath(std::string_view target) {
    target = target.substr(0, target.find('?'));
    if (target.empty() || target.front() != '/') {
        return std::nullopt;
    }
    std::string path;
    while (target.size() > 1) {
        target.remove_prefix(1);
        const std::string_view segment = target.substr(0, target.find('/'));
        target.remove_prefix(segment.size());
        std::string decoded;
        if (!decode(segment, decoded)) {
            return std::nullopt;
        }
        path += '/' + decoded;
    }
    return isUtf8(path) ? std::optional(path) : std::nullopt;
}

std::optional<std::string> scopeOf(std::string_view text) {
    const bool hasQuery = text.find('?') != std::string_view::npos;
    auto path = hasQuery ? std::nullopt : plainPath(text);
    return path && path->find(';') == std::string::npos ? path : std::nullopt;
}

bool isWithin(std::string_view path, std::string_view scope) {
    return path.substr(0, scope.size()) == scope &&
           (path.size() == scope.size() || path[scope.size()] == '/');
}

}  // namespace orvx::registry
