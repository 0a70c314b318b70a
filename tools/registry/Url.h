#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvx::registry {

/// The address of an HTTP server.
struct Url {
    bool isTls = false;
    std::string authority{};  ///< as in the text, for the Host header
    std::string host{};       ///< a name or an address, without brackets
    std::string port{};       ///< a number
};

/// Parses a text such as http://127.0.0.1:8500, https://name or http://[::1]:8500/. Returns nothing
/// if it is not a URL, or has a path or a user.
std::optional<Url> parseUrl(std::string_view text);

}  // namespace orvx::registry
