#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvx::registry {

/// A server that is reached over HTTP.
struct Url {
    bool isTls = false;
    std::string authority{};  ///< as in the text, for the field Host
    std::string host{};       ///< a name or an address, without brackets
    std::string port{};       ///< a number
};

/// Reads a text such as http://127.0.0.1:8500, https://name or http://[::1]:8500/; empty when it is
/// none, or has a path or a user.
std::optional<Url> parseUrl(std::string_view text);

}  // namespace orvx::registry
