#pragma once

#include <boost/asio/ip/address.hpp>
#include <memory>
#include <optional>

#include "Caller.h"
#include "RateLimiter.h"
#include "RequestHandler.h"
#include "Tokens.h"

namespace orvx::registry {

/// Decides whether a request may be carried out, by its header alone. Without tokens every request
/// may. Whether a token may check or withdraw one entry depends on the path of that entry, so
/// answer() decides that.
///
/// Thread-safety: none; one thread at a time.
class Guard {
  public:
    /// `admin`: whether /-/faults is there.
    Guard(std::uint32_t requestsPerSecond, bool admin)
        : limiter_(requestsPerSecond), admin_(admin) {}

    /// In place of those before.
    void setTokens(std::shared_ptr<const Tokens> tokens) { tokens_ = std::move(tokens); }

    /// The refusal, or nothing; `caller` is set as far as it is known. `header`: of a request whose
    /// body may be missing.
    std::optional<Response> refuse(const Request& header, const Peer& peer, EntryStore::Time now,
                                   Caller& caller);

    /// Whether that address may make one more connection, if that costs as much as a request.
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
