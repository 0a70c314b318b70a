#pragma once

#include <chrono>
#include <cstdint>

namespace orvx::communication {

/// The delays between attempts to reach a peer: capped exponential back-off with equal jitter.
///
/// The n-th delay (n = 0, 1, 2, ...) is uniformly distributed over [b/2, b] with b = interval *
/// 2^min(n, maxDoublings). A delay of less than 10 ms becomes 10 ms, so that there is always a
/// pause between two attempts.
/// Source: M. Brooker, "Exponential Backoff And Jitter", AWS Architecture Blog, 2015 ("equal
/// jitter"). Clients that lose a peer at the same moment return spread over half a step.
///
/// Not synchronised.
class QunaConnectionBackoffSequence {
  public:
    /// `interval` is in milliseconds. A step that overflows becomes the largest duration.
    QunaConnectionBackoffSequence(std::uint64_t maxDoublings, std::uint64_t interval);
    virtual ~QunaConnectionBackoffSequence();

    /// The next delay. The sequence is endless.
    virtual std::chrono::milliseconds nextDelay();

  private:
    std::uint64_t doublingsLeft_;
    std::uint64_t step_;
    std::uint64_t random_;
};

}  // namespace orvx::communication
