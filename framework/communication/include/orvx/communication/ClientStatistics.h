#pragma once

#include <orvx/communication/CommunicationStatus.h>
#include <orvx/utility/Export.h>
#include <orvx/utility/Mutex.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>

namespace orvx::communication {

/// Counts the requests of the sessions that report to this object, from its construction on. An
/// attempt that the client makes again after a failure counts as a request of its own.
///
/// Memory is bounded whatever servers answer: an HTTP status code has three digits.
/// Thread-safety: every operation may be called from any thread.
class ORVX_EXPORT ClientStatistics {
  public:
    /// The methods by which requests are counted.
    enum class Method : std::uint8_t { Put, Head, Delete };

    /// How one request ended.
    struct Outcome {
        /// The method of the request.
        Method method = Method::Put;
        /// The outcome at the network level.
        CommunicationStatus status = CommunicationStatus::Ok;
        /// The status code of the answer; 0 without an answer.
        int httpStatus = 0;
        /// From submission to the outcome.
        std::chrono::nanoseconds latency{0};
        /// How often the request was repeated on another connection because the kept connection had
        /// ended.
        std::uint64_t repeated = 0;
    };

    /// The outcome of the last request, and its time.
    struct Last {
        /// As Outcome::status.
        CommunicationStatus status = CommunicationStatus::Ok;
        /// The status code of the answer; 0 without an answer.
        int httpStatus = 0;
        /// By the system's clock.
        std::chrono::system_clock::time_point when;
    };

    /// The counts for one method.
    struct OfMethod {
        /// Requests whose handler was called with an outcome.
        std::uint64_t completed = 0;
        /// The number of requests by outcome. Outcomes that did not occur are absent.
        std::map<CommunicationStatus, std::uint64_t> byStatus;
        /// The number of answers by HTTP status code. Requests without an answer are not in it.
        std::map<int, std::uint64_t> byHttpStatus;
        /// Attempts after the first one of a request. The library repeats a request on another
        /// connection if the kept connection has ended before an answer.
        std::uint64_t repeated = 0;
        /// Absent until a request has ended.
        std::optional<Last> last;
        /// The time of the last answer with a status code from 200 to 299; absent until then.
        std::optional<std::chrono::system_clock::time_point> lastGood;
    };

    /// All counts at one moment.
    struct Snapshot {
        /// Requests of all methods.
        std::uint64_t completed = 0;
        /// The number of requests by outcome, over all methods. Outcomes that did not occur are
        /// absent.
        std::map<CommunicationStatus, std::uint64_t> byStatus;
        /// The sum of the times from submission to the whole answer, over requests that were
        /// answered.
        std::chrono::nanoseconds totalLatency{0};
        /// The longest of these times.
        std::chrono::nanoseconds longestLatency{0};
        /// Contains every method.
        std::map<Method, OfMethod> byMethod{
            {Method::Put, {}}, {Method::Head, {}}, {Method::Delete, {}}};
    };

    /// A copy of the counts at one moment.
    Snapshot snapshot() const ORVX_EXCLUDES(mutex_);

    /// For sessions: records a request that has just ended. Recording needs memory if a status
    /// occurs for the first time; if there is none, the request is not counted.
    void record(const Outcome& outcome) noexcept ORVX_EXCLUDES(mutex_);

  private:
    mutable utility::Mutex mutex_;
    Snapshot counted_ ORVX_GUARDED_BY(mutex_);
};

/// "PUT", "HEAD" or "DELETE"; an empty text for any other value.
ORVX_EXPORT const char* methodToString(ClientStatistics::Method method) noexcept;

}  // namespace orvx::communication
