#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string_view>

namespace orvx::registry {

/// Descriptions are flat. Writing JSON recurses, so no value may nest without limit.
constexpr std::size_t kMaxJsonDepth = 64;

/// How deeply arrays and objects nest in a JSON text.
std::size_t jsonDepthOf(std::string_view text);

/// The value of a JSON text from outside, in time proportional to its length. Discarded: the text
/// is not JSON in UTF-8, contains a NUL, or nests more deeply than kMaxJsonDepth.
nlohmann::json parseJson(std::string_view text);

}  // namespace orvx::registry
