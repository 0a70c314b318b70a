#pragma once

#include <chrono>
#include <cstdint>

namespace orvx::communication {

/// The delays between attempts to reach a peer: capped exponential back-off with equal jitter.
///
/// The n-th delay (n = 0, 1, 2, ...) is drawn evenly from [b/2, b] with
/// b = interval * 2^min(n, maxDoublings): it grows until it has doubled `maxDoublings` times. A
/// delay below 10 ms becomes 10 ms, so that attempts never follow one another without a pause.
/// Source: M. Brooker, "Exponential Backoff And Jitter", AWS Architecture Blog, 2015 ("equal
/// jitter"). Many clients that lose a peer at one moment so come back spread over half a step.
///
/// Not synchronised.
class QunaConnectionBackoffSequence {
  public:
    /// `interval` in milliseconds. Steps that would not fit are the largest duration.
    QunaConnectionBackoffSequence(std::uint64_t maxDoublings, std::uint64_t interval);
    virtual ~QunaConnectionBackoffSequence();

    /// The next delay of the sequence; it never ends.
    virtual std::chrono::milliseconds nextDelay();

  private:
    std::uint64_t doublingsLeft_;
    std::uint64_t step_;
    std::uint64_t random_;
};

}  // namespace orvx::communication
