#pragma once

#include <orvx/utility/Export.h>

#include <atomic>
#include <cstdint>

namespace orvx::communication {

/// Whether the servers that are talked to answer at all.
/// Thread-safety: every operation may be called from any thread.
class ORVX_EXPORT HealthCheck {
  public:
    /// True until a request stays without an answer, and again with the next answer.
    bool isHealthy() const noexcept { return consecutiveFailures() == 0; }
    /// Requests without an answer since the last answer.
    std::uint64_t consecutiveFailures() const noexcept { return failures_.load(); }

    /// For sessions: the outcome of one request that was sent.
    void record(bool answered) noexcept;

  private:
    std::atomic<std::uint64_t> failures_{0};
};

}  // namespace orvx::communication
