#pragma once

#include <orvx/communication/CommunicationStatus.h>

#include <atomic>
#include <cstdint>

namespace orvx::communication {

/// Whether the servers that are talked to answer at all.
/// Thread-safety: every operation may be called from any thread.
class HealthCheck {
  public:
    /// Requests that stayed without an answer since the last answer.
    std::uint64_t consecutiveFailures() const noexcept { return failures_.load(); }

    /// For sessions: the outcome of one request. An outcome that says nothing about the server (the
    /// request was invalid, given up, or had no session) is ignored.
    void record(CommunicationStatus outcome) noexcept;

  private:
    std::atomic<std::uint64_t> failures_{0};
};

}  // namespace orvx::communication
