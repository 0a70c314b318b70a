#pragma once

#include <string>

namespace orvx::registry {

/// The line of a token whose secret is its name followed by "-secret". `rights`: its other fields,
/// such as `"read":true`.
std::string tokenLine(const std::string& name, const std::string& rights);

}  // namespace orvx::registry
