#pragma once

#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>

namespace orvx::registry {

/// Limits the requests of each client address to a rate, with bursts of kBurst at that rate. IPv6
/// addresses with the same first 64 bits count as one. Only the kMaxAddresses addresses that were
/// active last are stored, which bounds the memory; the count of any other address starts at zero.
///
/// Thread-safety: none.
class RateLimiter {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::size_t kMaxAddresses = 65'536;
    static constexpr std::chrono::seconds kBurst{10};

    /// `perSecond`: 0 for no limit.
    explicit RateLimiter(std::uint32_t perSecond) : perSecond_(perSecond) {}

    /// Counts a request and returns nothing if it may be carried out. Otherwise returns the time
    /// until the next request is possible, and does not count this one.
    std::optional<std::chrono::seconds> refuse(const boost::asio::ip::address& address, Time now);

    std::size_t size() const { return clients_.size(); }

  private:
    struct Client {
        std::uint64_t key;
        Time due;  // when the requests so far would have ended at the rate
    };

    const std::uint32_t perSecond_;
    std::list<Client> clients_;  // the one that was active longest ago first
    std::unordered_map<std::uint64_t, std::list<Client>::iterator> byKey_;
};

}  // namespace orvx::registry
