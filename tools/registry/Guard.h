#pragma once

#include <boost/asio/ip/address.hpp>
#include <memory>
#include <optional>

#include "Caller.h"
#include "RateLimiter.h"
#include "RequestHandler.h"
#include "Tokens.h"

namespace orvx::registry {

/// Whether it asks if the registry serves. That needs no token, and the answer tells nothing else.
bool isForEverybody(const Request& header);

/// Decides whether a request may be carried out, by its header alone. Without tokens only the limit
/// of the rate refuses a request. Whether a token may check or withdraw one entry depends on the
/// path of that entry, so answer() decides that.
///
/// Thread-safety: none; one thread at a time.
class Guard {
  public:
    /// `admin`: whether /-/faults is served.
    Guard(std::uint32_t requestsPerSecond, bool admin)
        : limiter_(requestsPerSecond), admin_(admin) {}

    /// Replaces the tokens; null: no token is needed.
    void setTokens(std::shared_ptr<const Tokens> tokens) { tokens_ = std::move(tokens); }

    /// Returns the refusal, or nothing. Sets the known fields of `caller`. `header`: a request
    /// whose body may be missing.
    std::optional<Response> refuse(const Request& header, const Peer& peer, EntryStore::Time now,
                                   Caller& caller);

    /// Counts a connection as one request of the address. Returns whether it may be made.
    bool admitsConnection(const boost::asio::ip::address& address, EntryStore::Time now) {
        return !limiter_.refuse(address, now);
    }

  private:
    std::shared_ptr<const Token> authenticate(const Request& header) const;
    std::optional<Response> refuse(const Request& header, const Token& token) const;

    RateLimiter limiter_;
    std::shared_ptr<const Tokens> tokens_;
    const bool admin_;
};

}  // namespace orvx::registry
