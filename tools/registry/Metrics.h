#pragma once

#include <boost/beast/http/verb.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "EntryStore.h"

namespace orvx::registry {

/// What the registry counts, for Prometheus.
///
/// Thread-safety: none; one thread at a time.
class Metrics {
  public:
    /// A request and its answer's status; 0: the connection was reset.
    void countRequest(boost::beast::http::verb method, unsigned status) {
        ++requests_[{method, status}];
    }
    /// A put of a living service with another host or port.
    void countMove() { ++moves_; }

    /// All counts in Prometheus' text format. `faults`: how many are set.
    std::string text(const EntryStore& store, std::size_t faults) const;

  private:
    std::map<std::pair<boost::beast::http::verb, unsigned>, std::uint64_t> requests_;
    std::uint64_t moves_ = 0;
};

}  // namespace orvx::registry
