#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvx::communication {

/// The path as it goes into the request line: beginning with "/", and with the bytes that may not
/// stand there percent-encoded. "%" goes as given.
std::string requestTarget(std::string path);

/// An address of IPv6 is written in brackets, or not; anything else as it is.
std::string_view withoutBrackets(std::string_view host);

/// Host and port as requests name them, without an address's zone; empty when the host is none. It
/// is no host when it is not a name, an IPv4 address, or an IPv6 address with or without brackets,
/// or when a byte of it could mean anything else there.
std::string authority(const std::string& host, std::uint32_t port);

/// Whether a control character is in it, one that could end a header line for instance.
bool hasControlCharacter(std::string_view text);

}  // namespace orvx::communication
