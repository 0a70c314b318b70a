// Counts requests by the way they ended, and how long the answered ones took.
// Entered by any thread. `mutex_` is a leaf lock: nothing is called under it.

#include <orvx/communication/ClientStatistics.h>

#include <algorithm>

namespace orvx::communication {

using utility::MutexLock;

ClientStatistics::Snapshot ClientStatistics::snapshot() const {
    MutexLock lock(mutex_);
    return counted_;
}

void ClientStatistics::record(CommunicationStatus status, std::chrono::nanoseconds latency) {
    MutexLock lock(mutex_);
    ++counted_.byStatus[status];
    ++counted_.completed;
    if (status == CommunicationStatus::Ok) {
        counted_.totalLatency += latency;
        counted_.longestLatency = std::max(counted_.longestLatency, latency);
    }
}

}  // namespace orvx::communication
