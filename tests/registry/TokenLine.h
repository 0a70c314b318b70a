#pragma once

#include <string>

namespace orvx::registry {

/// The line of a token whose secret is its name and "-secret". `rights`: its further fields, as
/// `"read":true`.
std::string tokenLine(const std::string& name, const std::string& rights);

}  // namespace orvx::registry
