#pragma once

#include <orvx/communication/CommunicationStatus.h>
#include <orvx/utility/Export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace orvx::serviceregistryclient {

/// The state of one registration at one moment. A value. Times are those of the system's clock, in
/// whole milliseconds.
struct RegistrationStatus {
    /// The state of a registration.
    enum class State : std::uint8_t {
        Announcing = 0,  ///< The registry has not confirmed the entry yet.
        Announced = 1,   ///< By its last answer, the registry holds the entry.
        Unreachable =
            2,     ///< Announced, but the last check was answered with neither a success nor 404.
        Lost = 3,  ///< The registry has lost the entry; it is being announced again.
        Withdrawing = 4,  ///< A withdrawal was requested and is not confirmed yet.
    };

    /// A request that failed.
    struct Failure {
        /// The time at which the request ended.
        std::chrono::system_clock::time_point time;
        /// The outcome at the network level. Ok: the registry refused.
        communication::CommunicationStatus communicationStatus =
            communication::CommunicationStatus::Other;
        /// The status code of the answer; 0 without an answer.
        int httpStatus = 0;
        /// For human readers: the method, the statuses, and the beginning of the answer's body, or
        /// the cause of the failure: "PUT: CONNECT_FAILED: connection refused by 10.0.0.5:8500".
        std::string text;
    };

    /// The number in the log lines about this registration.
    std::uint64_t requestId = 0;
    /// The service's name.
    std::string name;
    /// The path at which the service is registered.
    std::string uri;
    /// The registry, as "host:port".
    std::string endpoint;
    /// The uuid of the entry; empty while the registry is not known to hold the entry.
    std::string uuid;
    /// The state of the registration.
    State state = State::Announcing;
    /// The time at which the state began.
    std::chrono::system_clock::time_point since;
    /// The time at which the registry last confirmed the entry; absent until then.
    std::optional<std::chrono::system_clock::time_point> lastConfirmed;
    /// The last failure, kept after a success; absent until a request has failed.
    std::optional<Failure> lastFailure;
    /// Requests that were sent for this registration since the last success.
    std::uint32_t attempts = 0;
    /// The due time of the next check or retry. Absent while a request is outstanding, and if none
    /// is planned.
    std::optional<std::chrono::system_clock::time_point> nextAttempt;
};

/// "announcing", "announced", "unreachable", "lost" or "withdrawing"; an empty text for any other
/// value.
ORVX_EXPORT const char* registrationStateToString(RegistrationStatus::State state) noexcept;

/// A change of a registration.
struct RegistrationEvent {
    /// The kind of change.
    enum class Kind : std::uint8_t {
        Announced = 0,    ///< The registry holds the entry, for the first time or again.
        Unreachable = 1,  ///< The first request that failed since a success or the beginning.
        Reachable = 2,    ///< The first request after Unreachable that succeeded or found a loss.
        Lost = 3,         ///< The registry has lost the entry.
        Withdrawn = 4,    ///< The entry is gone as requested, or the registration was given up.
    };

    /// The kind of change.
    Kind kind = Kind::Announced;
    /// The status after the event. For Unreachable and Lost, lastFailure is the reason.
    RegistrationStatus status;
};

/// "announced", "unreachable", "reachable", "lost" or "withdrawn"; an empty text for any other
/// value.
ORVX_EXPORT const char* registrationEventToString(RegistrationEvent::Kind kind) noexcept;

/// Receives an event; see OrvServiceRegistryContext::setRegistrationListener().
using RegistrationListener = std::function<void(const RegistrationEvent&)>;

}  // namespace orvx::serviceregistryclient
