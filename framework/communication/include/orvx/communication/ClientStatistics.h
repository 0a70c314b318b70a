#pragma once

#include <orvx/communication/CommunicationStatus.h>
#include <orvx/utility/Export.h>
#include <orvx/utility/Mutex.h>

#include <chrono>
#include <cstdint>
#include <map>

namespace orvx::communication {

/// What the sessions of a communication context have done, counted since it was made.
/// Thread-safety: every operation may be called from any thread.
class ORVX_EXPORT ClientStatistics {
  public:
    struct Snapshot {
        /// Requests whose handler was given an outcome.
        std::uint64_t completed = 0;
        /// How many of them ended in which way; ways that did not occur are absent.
        std::map<CommunicationStatus, std::uint64_t> byStatus;
        /// From submission to the whole answer, over requests that were answered.
        std::chrono::nanoseconds totalLatency{0};
        std::chrono::nanoseconds longestLatency{0};
    };

    Snapshot snapshot() const ORVX_EXCLUDES(mutex_);

    /// For sessions: one request has ended.
    void record(CommunicationStatus status, std::chrono::nanoseconds latency) ORVX_EXCLUDES(mutex_);

  private:
    mutable utility::Mutex mutex_;
    Snapshot counted_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::communication
