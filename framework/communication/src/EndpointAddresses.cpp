// Finds the addresses of an endpoint, and decides for how long they are valid.
// Entered by the I/O thread only; there is no lock.

#include "EndpointAddresses.h"

#include <chrono>
#include <new>
#include <string>
#include <utility>

namespace orvx::communication {

namespace {

// Shorter than the lifetime of most DNS records, and long enough that a client that reconnects
// again and again does not look the name up each time.
constexpr std::chrono::seconds kAddressesLast(60);

}  // namespace

bool EndpointAddresses::find() {
    if (Clock::now() < end_) {
        return true;
    }
    if (isLookingUp_) {
        return false;
    }
    const std::string& host = settings_.nextHop().host;
    if (auto known = fixed()) {
        set(*std::move(known));
        // The interface that is an address's zone may get another number.
        const bool hasZone = host.find('%') != std::string::npos;
        end_ = hasZone ? Clock::now() + kAddressesLast : Clock::time_point::max();
        return true;
    }
    resolver_.lookUp(host);
    isLookingUp_ = true;
    return false;
}

/// The addresses that need no look-up, without a port. Absent if there are none.
std::optional<Addresses> EndpointAddresses::fixed() const {
    const std::string& socketPath = settings_.config.unixSocketPath;
    return socketPath.empty() ? addressesFromText(settings_.nextHop().host)
                              : std::make_optional(Addresses{unixAddress(socketPath)});
}

/// Takes addresses without a port.
void EndpointAddresses::set(Addresses found) {
    setPort(found, settings_.nextHop().port);
    list_.replace(std::move(found));
}

std::optional<CommunicationStatus> EndpointAddresses::take(const Resolver::LookUp& lookUp) {
    if (!isLookingUp_ || lookUp.name != settings_.nextHop().host) {
        return std::nullopt;
    }
    isLookingUp_ = false;
    try {
        if (lookUp.answer.status == CommunicationStatus::Ok) {
            set(lookUp.answer.addresses);
            end_ = Clock::now() + kAddressesLast;
        }
    } catch (const std::bad_alloc&) {
        return CommunicationStatus::OutOfMemory;
    }
    return lookUp.answer.status;
}

void EndpointAddresses::doubt() {
    if (end_ != Clock::time_point::max()) {
        end_ = Clock::time_point::min();
    }
}

}  // namespace orvx::communication
