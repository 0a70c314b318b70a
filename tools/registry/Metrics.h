#pragma once

#include <array>
#include <boost/beast/http/verb.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "EntryStore.h"

namespace orvx::registry {

/// Why a connection is ended without an answer: the handshake failed; it was too slow to send or to
/// take something; another one needed its place; its address had made too many requests.
enum class Drop { Handshake, Timeout, Connections, Rate };

/// What the registry counts, for Prometheus.
///
/// Thread-safety: none; one thread at a time.
class Metrics {
  public:
    /// A request and its answer's status; 0: the connection was reset.
    void countRequest(boost::beast::http::verb method, unsigned status) {
        ++requests_[{method, status}];
    }
    /// A connection that was ended without an answer.
    void countDrop(Drop reason) { ++drops_[static_cast<std::size_t>(reason)]; }
    /// A put of a living service with another host or port.
    void countMove() { ++moves_; }

    /// All counts in Prometheus' text format. `faults`: how many are set.
    std::string text(const EntryStore& store, std::size_t faults) const;

  private:
    std::map<std::pair<boost::beast::http::verb, unsigned>, std::uint64_t> requests_;
    std::uint64_t moves_ = 0;
    std::array<std::uint64_t, 4> drops_{};  // by Drop
};

}  // namespace orvx::registry
