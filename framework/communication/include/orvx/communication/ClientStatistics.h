#pragma once

#include <orvx/communication/CommunicationStatus.h>
#include <orvx/utility/Export.h>
#include <orvx/utility/Mutex.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>

namespace orvx::communication {

/// What the sessions that report here have done, counted since it was made. An attempt that the
/// client makes again after a failure is a request of its own.
///
/// It needs bounded memory, whatever servers answer: an HTTP status code has three digits.
/// Thread-safety: every operation may be called from any thread.
class ORVX_EXPORT ClientStatistics {
  public:
    /// The methods that requests are counted by.
    enum class Method : std::uint8_t { Put, Head, Delete };

    /// How one request ended.
    struct Outcome {
        /// What was asked.
        Method method = Method::Put;
        /// How it ended, as far as the network is concerned.
        CommunicationStatus status = CommunicationStatus::Ok;
        /// Of the answer; 0 when there is none.
        int httpStatus = 0;
        /// From submission on.
        std::chrono::nanoseconds latency{0};
        /// How often it was repeated on another connection, because the kept one had ended.
        std::uint64_t repeated = 0;
    };

    /// How the last request ended, and when.
    struct Last {
        /// As Outcome::status.
        CommunicationStatus status = CommunicationStatus::Ok;
        /// 0 when there was no answer.
        int httpStatus = 0;
        /// By the system's clock.
        std::chrono::system_clock::time_point when;
    };

    /// What became of the requests of one method.
    struct OfMethod {
        /// Requests whose handler was given an outcome.
        std::uint64_t completed = 0;
        /// How many of them ended in which way, and with which HTTP status code; what did not occur
        /// is absent. Those without an answer have no HTTP status code.
        std::map<CommunicationStatus, std::uint64_t> byStatus;
        /// The answers by their HTTP status codes.
        std::map<int, std::uint64_t> byHttpStatus;
        /// Attempts beyond the first of a request: it is repeated by itself, on another connection,
        /// when the kept one has ended before an answer.
        std::uint64_t repeated = 0;
        /// Absent until a request has ended.
        std::optional<Last> last;
        /// When the last answer came with a status code from 200 to 299; absent until then.
        std::optional<std::chrono::system_clock::time_point> lastGood;
    };

    /// All that was counted until one moment.
    struct Snapshot {
        /// Over all methods.
        std::uint64_t completed = 0;
        /// How many of them ended in which way; what did not occur is absent.
        std::map<CommunicationStatus, std::uint64_t> byStatus;
        /// From submission to the whole answer, over requests that were answered.
        std::chrono::nanoseconds totalLatency{0};
        /// The longest of them.
        std::chrono::nanoseconds longestLatency{0};
        /// Every method is there.
        std::map<Method, OfMethod> byMethod{
            {Method::Put, {}}, {Method::Head, {}}, {Method::Delete, {}}};
    };

    /// A copy, of one moment.
    Snapshot snapshot() const ORVX_EXCLUDES(mutex_);

    /// For sessions: one request has ended, just now. Memory is needed where a status occurs for
    /// the first time; without, the request is not counted.
    void record(const Outcome& outcome) noexcept ORVX_EXCLUDES(mutex_);

  private:
    mutable utility::Mutex mutex_;
    Snapshot counted_ ORVX_GUARDED_BY(mutex_);
};

/// "PUT", "HEAD" or "DELETE"; an empty text for a value that is none of them.
ORVX_EXPORT const char* methodToString(ClientStatistics::Method method) noexcept;

}  // namespace orvx::communication
