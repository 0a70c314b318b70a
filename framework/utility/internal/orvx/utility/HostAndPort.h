#pragma once

#include <cstdint>
#include <string>

namespace orvx::utility {

/// "host:port". An IPv6 address is written in brackets, which it may have already: "[::1]:8500".
inline std::string hostAndPort(const std::string& host, std::uint32_t port) {
    const bool isBareIpv6 = host.find(':') != std::string::npos && host.front() != '[';
    std::string text = isBareIpv6 ? '[' + host + ']' : host;
    text += ':';
    return text += std::to_string(port);
}

}  // namespace orvx::utility
