// The characters that are allowed in a request line and in a URL (RFC 3986, sections 2 and 3).
// Entered by any thread; there is no state and no lock. Nothing depends on the process's locale.

#include <orvx/communication/RequestTarget.h>

#include <orvx/utility/Ascii.h>
#include <orvx/utility/HostAndPort.h>

#include <arpa/inet.h>

#include <algorithm>
#include <array>

namespace orvx::communication {

using utility::isAlphanumeric;

namespace {

constexpr std::array<bool, 256> charactersOfTargets() {
    constexpr std::string_view kMarks = "-._~!$&'()*+,;=:@/?%";
    std::array<bool, 256> allowed{};
    for (std::size_t byte = 0; byte < allowed.size(); ++byte) {
        const auto c = static_cast<char>(byte);
        allowed[byte] = isAlphanumeric(c) || kMarks.find(c) != std::string_view::npos;
    }
    return allowed;
}

bool mayStandInTarget(char c) {
    static constexpr std::array<bool, 256> kAllowed = charactersOfTargets();
    return kAllowed[static_cast<unsigned char>(c)];
}

void appendEncoded(std::string& target, char c) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    target += '%';
    target += kDigits[byte >> 4U];
    target += kDigits[byte & 0xFU];
}

bool isName(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return isAlphanumeric(c) || c == '-' || c == '.' || c == '_';
    });
}

bool isIpv6(const std::string& address) {
    in6_addr ignored;
    return address.find('\0') == std::string::npos &&
           ::inet_pton(AF_INET6, address.c_str(), &ignored) == 1;
}

/// The IPv6 address without its zone, which has a meaning on this machine only; empty when `host`
/// is no IPv6 address.
std::string ipv6WithoutZone(std::string_view host) {
    const auto percent = host.find('%');
    std::string address(host.substr(0, percent));
    const bool isZoneValid = percent == std::string_view::npos || isName(host.substr(percent + 1));
    return isIpv6(address) && isZoneValid ? address : std::string();
}

}  // namespace

std::string_view withoutBrackets(std::string_view host) {
    const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? host.substr(1, host.size() - 2) : host;
}

std::string requestTarget(std::string path) {
    const bool isValid = std::all_of(path.begin(), path.end(), mayStandInTarget);
    if (isValid && !path.empty() && path.front() == '/') {
        return path;
    }
    std::string target;
    target.reserve(path.size() + 1);
    if (path.empty() || path.front() != '/') {
        target += '/';
    }
    if (isValid) {
        return target += path;
    }
    for (const char c : path) {
        if (mayStandInTarget(c)) {
            target += c;
        } else {
            appendEncoded(target, c);
        }
    }
    return target;
}

std::string authority(const std::string& host, std::uint32_t port) {
    const std::string usable = isName(host) ? host : ipv6WithoutZone(withoutBrackets(host));
    return usable.empty() ? usable : utility::hostAndPort(usable, port);
}

bool hasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(),
                       [](char c) { return (c >= '\0' && c < ' ') || c == '\x7F'; });
}

}  // namespace orvx::communication
