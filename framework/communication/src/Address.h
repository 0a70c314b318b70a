#pragma once

#include "Request.h"

#include <sys/socket.h>

#include <optional>
#include <string>
#include <vector>

namespace orvx::communication {

/// An address to which a socket can be connected.
struct Address {
    sockaddr_storage storage;
    socklen_t size;
};
using Addresses = std::vector<Address>;

bool operator==(const Address& left, const Address& right) noexcept;

/// The result of a look-up.
struct Resolved {
    CommunicationStatus status = CommunicationStatus::ResolveFailed;
    Addresses addresses;  ///< The families alternate.
    std::string reason;   ///< Why the look-up failed; empty if the name is not known.
};

/// Looks a name up with the system's resolver; blocks. The addresses have no port.
Resolved lookUp(const std::string& name) noexcept;
/// The addresses of a text that needs no look-up: an address, or "localhost". Absent for any other
/// text.
std::optional<Addresses> addressesFromText(const std::string& host);
/// The address of a Unix domain socket.
Address unixAddress(const std::string& path);
/// The address and port as text: "10.0.0.5:8500", "[::1]:8500", or the path of a Unix domain
/// socket.
std::string toText(const Address& address);
/// Sets the port of all IP addresses.
void setPort(Addresses& addresses, std::uint16_t port);

}  // namespace orvx::communication
