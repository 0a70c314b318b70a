#pragma once

#include "Request.h"

#include <sys/socket.h>

#include <optional>
#include <string>
#include <vector>

namespace orvx::communication {

/// Where a socket can be connected to.
struct Address {
    sockaddr_storage storage;
    socklen_t size;
};
using Addresses = std::vector<Address>;

bool operator==(const Address& left, const Address& right) noexcept;

/// What the system's resolver says.
struct Resolved {
    CommunicationStatus status = CommunicationStatus::ResolveFailed;
    Addresses addresses;  ///< The families take turns.
};

/// Of a name, in the time that this takes. Without the port.
Resolved lookUp(const std::string& name) noexcept;
/// What the text says itself: it is an address, or the name of this machine's own.
std::optional<Addresses> ownAddresses(const std::string& host);
/// Of a Unix domain socket.
Address unixAddress(const std::string& path);
/// As people write it, with the port: "10.0.0.5:8500", "[::1]:8500", or a path.
std::string toText(const Address& address);
/// With that port, as far as they have one.
void setPort(Addresses& addresses, std::uint16_t port);

}  // namespace orvx::communication
