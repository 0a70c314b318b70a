#pragma once

#include <array>
#include <boost/beast/http/verb.hpp>
#include <chrono>
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
    /// A request and its answer's status; 0: the connection was reset. `duration`: from the whole
    /// request to its answer, without the time that the network takes.
    void countRequest(boost::beast::http::verb method, unsigned status,
                      std::chrono::steady_clock::duration duration);
    /// A reader of the stream of changes has begun.
    void addWatcher() { ++watchers_; }
    void removeWatcher() { --watchers_; }
    /// A connection that was ended without an answer.
    void countDrop(Drop reason) { ++drops_[static_cast<std::size_t>(reason)]; }
    /// A put of a living service with another host or port.
    void countMove() { ++moves_; }

    /// All counts in Prometheus' text format. `faults`: how many are set.
    std::string text(const EntryStore& store, std::size_t faults) const;

  private:
    /// Upper bounds of the durations that are counted together, in seconds.
    static constexpr std::array<double, 7> kDurations{.0001, .0005, .002, .01, .05, .25, 1};

    std::map<std::pair<boost::beast::http::verb, unsigned>, std::uint64_t> requests_;
    std::array<std::uint64_t, kDurations.size() + 1> durations_{};  // the last one has no bound
    double secondsOfRequests_ = 0;
    std::size_t watchers_ = 0;
    std::uint64_t moves_ = 0;
    std::array<std::uint64_t, 4> drops_{};  // by Drop
};

}  // namespace orvx::registry
