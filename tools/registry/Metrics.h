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

/// Why a connection was ended without an answer: its handshake failed; it sent or received too
/// slowly; another connection needed its place; its address had made too many requests.
enum class Drop { Handshake, Timeout, Connections, Rate };

/// A log whose lost lines are counted.
enum class LostIn { Requests, Audit };

/// What the registry counts, for Prometheus.
///
/// Thread-safety: none; one thread at a time.
class Metrics {
  public:
    /// Counts a request by the status of its answer; 0: the connection was reset. `duration`: from
    /// the complete request to its answer, without the time of the network.
    void countRequest(boost::beast::http::verb method, unsigned status,
                      std::chrono::steady_clock::duration duration);
    /// Counts the present readers of the stream of changes.
    void addWatcher() { ++watchers_; }
    void removeWatcher() { --watchers_; }
    /// Counts a connection that was ended without an answer.
    void countDrop(Drop reason) { ++drops_[static_cast<std::size_t>(reason)]; }
    /// A line of a log that could not be written, or that nobody read in time.
    void countLostLine(LostIn log) { ++lostLines_[static_cast<std::size_t>(log)]; }
    /// A put of a living service with another host or port.
    void countMove() { ++moves_; }

    /// All metrics in Prometheus' text format. `faults`: the number of faults that are set.
    std::string text(const EntryStore& store, std::size_t faults) const;

  private:
    /// Upper bounds of the histogram's buckets, in seconds.
    static constexpr std::array<double, 7> kDurations{.0001, .0005, .002, .01, .05, .25, 1};

    std::map<std::pair<boost::beast::http::verb, unsigned>, std::uint64_t> requests_;
    std::array<std::uint64_t, kDurations.size() + 1> durations_{};  // the last one has no bound
    double secondsOfRequests_ = 0;
    std::size_t watchers_ = 0;
    std::uint64_t moves_ = 0;
    std::array<std::uint64_t, 4> drops_{};      // by Drop
    std::array<std::uint64_t, 2> lostLines_{};  // by LostIn
};

}  // namespace orvx::registry
