#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvx::communication {

/// The target of a request line: begins with "/"; bytes that are not allowed there are
/// percent-encoded. "%" stays unchanged.
std::string requestTarget(std::string path);

/// An IPv6 address without its brackets; any other text unchanged.
std::string_view withoutBrackets(std::string_view host);

/// Host and port as used in requests, without the zone of an IPv6 address. Empty if `host` is not a
/// name, an IPv4 address, or an IPv6 address with or without brackets.
std::string authority(const std::string& host, std::uint32_t port);

/// Whether the text contains a control character, which could end a header line.
bool hasControlCharacter(std::string_view text);

}  // namespace orvx::communication
