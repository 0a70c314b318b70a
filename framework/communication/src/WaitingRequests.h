#pragma once

#include "Request.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace orvx::communication {

/// The requests of one endpoint that wait for a connection: first repetitions, which need a new
/// connection, then HEADs, then all others.
///
/// For the I/O thread only. Functions do not throw.
class WaitingRequests {
  public:
    std::size_t size() const { return repeats_.size() + heads_.size() + others_.size(); }
    bool isEmpty() const { return size() == 0; }
    /// The number of those that need a new connection.
    std::size_t repeats() const { return repeats_.size(); }

    void add(std::unique_ptr<Request> request);
    void addRepeat(std::unique_ptr<Request> request) { repeats_.push(std::move(request)); }
    /// The next request for a connection, which may be new. Null if there is none.
    std::unique_ptr<Request> takeNext(bool isNew);

    /// The oldest HEAD among the repetitions, and among the others. Null if there is none.
    std::unique_ptr<Request> takeOldestHeadOfRepeats();
    std::unique_ptr<Request> takeOldestHead() { return heads_.pop(); }
    /// The next request with a number up to `last`; without `mayBeAny` only a repetition. Null if
    /// there is none.
    std::unique_ptr<Request> takeUpTo(std::uint64_t last, bool mayBeAny);

    /// All requests whose time has passed.
    RequestQueue takeExpired(Clock::time_point now);
    /// The earliest deadline; the maximum without a request.
    Clock::time_point nextDeadline();

  private:
    RequestQueue repeats_;
    RequestQueue heads_;
    RequestQueue others_;
};

}  // namespace orvx::communication
