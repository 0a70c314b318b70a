#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string_view>

namespace orvx::registry {

/// Limit to the nesting of values. Writing JSON recurses, so deeper nesting could exhaust the
/// stack. Descriptions of services are flat.
constexpr std::size_t kMaxJsonDepth = 64;

/// How deeply arrays and objects nest in a JSON text.
std::size_t jsonDepthOf(std::string_view text);

/// Parses a JSON text from outside in time proportional to its length. The result is discarded if
/// the text is not JSON in UTF-8, contains a NUL, or nests more deeply than kMaxJsonDepth.
nlohmann::json parseJson(std::string_view text);

}  // namespace orvx::registry
