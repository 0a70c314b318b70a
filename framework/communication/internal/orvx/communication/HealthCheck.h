#pragma once

#include <orvx/communication/CommunicationStatus.h>

#include <atomic>
#include <cstdint>

namespace orvx::communication {

/// Counts how many requests in a row stayed without an answer.
/// Thread-safety: every operation may be called from any thread.
class HealthCheck {
  public:
    /// Requests without an answer since the last answer.
    std::uint64_t consecutiveFailures() const noexcept { return failures_.load(); }

    /// For sessions: records the outcome of one request. Outcomes that say nothing about the server
    /// (the request was invalid, given up, or had no session) are ignored.
    void record(CommunicationStatus outcome) noexcept;

  private:
    std::atomic<std::uint64_t> failures_{0};
};

}  // namespace orvx::communication
