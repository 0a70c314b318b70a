// Converts between addresses and text, and looks names up.
// Entered by any thread; there is no state and no lock.

#include "Address.h"

#include <orvx/utility/HostAndPort.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>

namespace orvx::communication {

namespace {

using List = std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>;

// AI_ADDRCONFIG is not set: it hides ::1 on a machine without another IPv6 address. An address that
// cannot be reached fails at once anyway.
List find(const std::string& host, int& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* first = nullptr;
    error = ::getaddrinfo(host.c_str(), nullptr, &hints, &first);
    return {error == 0 ? first : nullptr, ::freeaddrinfo};
}

/// Empty for a name that is not known. To be called right after the look-up.
std::string reasonOf(int error) {
    switch (error) {
        case 0:
        case EAI_NONAME:
            return {};
        case EAI_SYSTEM:
            return std::generic_category().message(errno);
        default:
            return ::gai_strerror(error);
    }
}

Addresses addressesOf(const addrinfo* first) {
    Addresses addresses;
    for (const addrinfo* found = first; found != nullptr; found = found->ai_next) {
        if (found->ai_family == AF_INET || found->ai_family == AF_INET6) {
            Address address{};
            std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
            address.size = found->ai_addrlen;
            addresses.push_back(address);
        }
    }
    return addresses;
}

/// The number of a network interface that is given by name or number.
std::uint32_t zoneNumber(const std::string& zone) {
    const std::uint32_t named = ::if_nametoindex(zone.c_str());
    return named != 0 ? named : static_cast<std::uint32_t>(std::strtoul(zone.c_str(), nullptr, 10));
}

/// Keeps the resolver's order, but alternates the families (RFC 8305, section 4). Keeps the first
/// 64 addresses only: thousands of them would keep the I/O thread from its other work.
Addresses interleaved(const Addresses& addresses) {
    Addresses first;
    Addresses second;
    for (const Address& address : addresses) {
        const bool isOfFirst = address.storage.ss_family == addresses.front().storage.ss_family;
        (isOfFirst ? first : second).push_back(address);
    }
    Addresses result;
    for (std::size_t i = 0; i < std::max(first.size(), second.size()); ++i) {
        for (const Addresses* const family : {&first, &second}) {
            if (i < family->size()) {
                result.push_back((*family)[i]);
            }
        }
    }
    constexpr std::size_t kMost = 64;
    result.resize(std::min(result.size(), kMost));
    return result;
}

}  // namespace

bool operator==(const Address& left, const Address& right) noexcept {
    return left.size == right.size && std::memcmp(&left.storage, &right.storage, left.size) == 0;
}

Resolved lookUp(const std::string& name) noexcept {
    try {
        int error = 0;
        const List list = find(name, error);
        std::string reason = reasonOf(error);
        if (error == EAI_MEMORY) {
            return {CommunicationStatus::OutOfMemory, {}, {}};
        }
        Addresses addresses = interleaved(addressesOf(list.get()));
        const auto status =
            addresses.empty() ? CommunicationStatus::ResolveFailed : CommunicationStatus::Ok;
        return {status, std::move(addresses), std::move(reason)};
    } catch (const std::bad_alloc&) {
        return {CommunicationStatus::OutOfMemory, {}, {}};
    }
}

std::optional<Addresses> addressesFromText(const std::string& host) {
    if (host == "localhost") {
        // RFC 6761: this name needs no look-up. Host files often lack one of the two addresses.
        Addresses both;
        for (const char* const loopback : {"127.0.0.1", "::1"}) {
            both.push_back(addressesFromText(loopback)->front());
        }
        return both;
    }
    Address address{};
    auto& v4 = reinterpret_cast<sockaddr_in&>(address.storage);
    if (::inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        address.size = sizeof v4;
        return Addresses{address};
    }
    auto& v6 = reinterpret_cast<sockaddr_in6&>(address.storage);
    const auto percent = host.find('%');
    if (::inet_pton(AF_INET6, host.substr(0, percent).c_str(), &v6.sin6_addr) != 1) {
        return std::nullopt;
    }
    v6.sin6_family = AF_INET6;
    v6.sin6_scope_id = percent == std::string::npos ? 0 : zoneNumber(host.substr(percent + 1));
    address.size = sizeof v6;
    return Addresses{address};
}

Address unixAddress(const std::string& path) {
    Address address{};
    auto& unixAddress = reinterpret_cast<sockaddr_un&>(address.storage);
    unixAddress.sun_family = AF_UNIX;
    path.copy(unixAddress.sun_path, sizeof unixAddress.sun_path - 1);
    address.size = sizeof unixAddress;
    return address;
}

std::string toText(const Address& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (address.storage.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(address.storage);
        ::inet_ntop(AF_INET, &v4.sin_addr, text.data(), text.size());
        return utility::hostAndPort(text.data(), ntohs(v4.sin_port));
    }
    if (address.storage.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address.storage);
        ::inet_ntop(AF_INET6, &v6.sin6_addr, text.data(), text.size());
        return utility::hostAndPort(text.data(), ntohs(v6.sin6_port));
    }
    return reinterpret_cast<const sockaddr_un&>(address.storage).sun_path;
}

void setPort(Addresses& addresses, std::uint16_t port) {
    for (Address& address : addresses) {
        if (address.storage.ss_family == AF_INET) {
            reinterpret_cast<sockaddr_in&>(address.storage).sin_port = htons(port);
        } else if (address.storage.ss_family == AF_INET6) {
            reinterpret_cast<sockaddr_in6&>(address.storage).sin6_port = htons(port);
        }
    }
}

}  // namespace orvx::communication
