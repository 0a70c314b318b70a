// Parses JSON from outside. The depth is counted before parsing: nlohmann's parser could count it
// with a callback, but then needs time in proportion to the square of the number of an array's
// elements. Thread-safe: there is no state.

#include "Json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvx::registry {

using nlohmann::json;

std::size_t jsonDepthOf(std::string_view text) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    bool isInString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char byte = text[i];
        if (byte == '"') {
            isInString = !isInString;
        } else if (isInString) {
            i += byte == '\\' ? 1 : 0;  // an escaped quotation mark does not end the string
        } else if (byte == '[' || byte == '{') {
            deepest = std::max(deepest, ++depth);
        } else if ((byte == ']' || byte == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

json parseJson(std::string_view text) {
    // The parser would treat a NUL as the end of the text.
    if (text.find('\0') != std::string_view::npos || jsonDepthOf(text) > kMaxJsonDepth) {
        return json(json::value_t::discarded);
    }
    return json::parse(text, nullptr, false);
}

}  // namespace orvx::registry
