// Counts requests by method and outcome, and sums up the latency of answers.
// Entered by any thread. `mutex_` is a leaf lock: nothing is called under it.

#include <orvx/communication/ClientStatistics.h>

#include <algorithm>
#include <new>

namespace orvx::communication {

using utility::MutexLock;

namespace {

bool isGood(const ClientStatistics::Outcome& outcome) {
    return outcome.status == CommunicationStatus::Ok && outcome.httpStatus / 100 == 2;
}

// The statements that may throw come first.
void count(ClientStatistics::OfMethod& method, const ClientStatistics::Outcome& outcome,
           std::chrono::system_clock::time_point now) {
    std::uint64_t& ofStatus = method.byStatus[outcome.status];
    if (outcome.httpStatus != 0) {
        ++method.byHttpStatus[outcome.httpStatus];
    }
    ++ofStatus;
    ++method.completed;
    method.repeated += outcome.repeated;
    method.last = {outcome.status, outcome.httpStatus, now};
    if (isGood(outcome)) {
        method.lastGood = now;
    }
}

}  // namespace

ClientStatistics::Snapshot ClientStatistics::snapshot() const {
    Snapshot snapshot;
    {
        MutexLock lock(mutex_);
        snapshot = counted_;
    }
    for (const auto& [method, counted] : snapshot.byMethod) {
        snapshot.completed += counted.completed;
        for (const auto& [status, count] : counted.byStatus) {
            snapshot.byStatus[status] += count;
        }
    }
    return snapshot;
}

void ClientStatistics::record(const Outcome& outcome) noexcept {
    const auto now = std::chrono::system_clock::now();
    MutexLock lock(mutex_);
    try {
        count(counted_.byMethod.at(outcome.method), outcome, now);
    } catch (const std::bad_alloc&) {
        return;
    }
    if (outcome.status == CommunicationStatus::Ok) {
        counted_.totalLatency += outcome.latency;
        counted_.longestLatency = std::max(counted_.longestLatency, outcome.latency);
    }
}

const char* methodToString(ClientStatistics::Method method) noexcept {
    // No default: the compiler warns about a method that is missing here.
    switch (method) {
        case ClientStatistics::Method::Put:
            return "PUT";
        case ClientStatistics::Method::Head:
            return "HEAD";
        case ClientStatistics::Method::Delete:
            return "DELETE";
    }
    return "";
}

}  // namespace orvx::communication
