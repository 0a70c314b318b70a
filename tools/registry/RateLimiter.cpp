// A leaky bucket for each address. It is stored as one time: the end of the address's requests if
// they had come at the rate. Runs on the server's thread, or a test's thread. There is no lock.

#include "RateLimiter.h"

#include <algorithm>
#include <iterator>

namespace orvx::registry {

namespace ip = boost::asio::ip;

namespace {

/// An IPv4 address and the IPv4-mapped IPv6 address have the same key.
std::uint64_t keyOf(const ip::address& address) {
    constexpr std::uint64_t kIpv4 = std::uint64_t{0xFFFF} << 32U;  // no network has that prefix
    if (address.is_v4()) {
        return kIpv4 | address.to_v4().to_uint();
    }
    const ip::address_v6 wide = address.to_v6();
    if (wide.is_v4_mapped()) {
        return kIpv4 | ip::make_address_v4(ip::v4_mapped, wide).to_uint();
    }
    std::uint64_t key = 0;
    const auto bytes = wide.to_bytes();
    std::for_each(bytes.begin(), bytes.begin() + 8,
                  [&key](unsigned char byte) { key = key << 8U | byte; });
    return key;
}

}  // namespace

std::optional<std::chrono::seconds> RateLimiter::refuse(const ip::address& address, Time now) {
    if (perSecond_ == 0) {
        return std::nullopt;
    }
    const std::uint64_t key = keyOf(address);
    auto known = byKey_.find(key);
    if (known == byKey_.end()) {
        if (clients_.size() >= kMaxAddresses) {
            byKey_.erase(clients_.front().key);
            clients_.pop_front();
        }
        known = byKey_.emplace(key, clients_.insert(clients_.end(), {key, now})).first;
    }
    clients_.splice(clients_.end(), clients_, known->second);
    Time& due = known->second->due;
    const Time after =
        std::max(due, now) + std::chrono::nanoseconds(std::chrono::seconds(1)) / perSecond_;
    if (after - now > kBurst) {
        return std::chrono::ceil<std::chrono::seconds>(after - now - kBurst);
    }
    due = after;
    return std::nullopt;
}

}  // namespace orvx::registry
