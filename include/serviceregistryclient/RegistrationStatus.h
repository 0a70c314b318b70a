#pragma once

#include <orvx/communication/CommunicationStatus.h>
#include <orvx/utility/Export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace orvx::serviceregistryclient {

/// What the client knows of one registration at one moment. A value. Times are those of the
/// system's clock, in whole milliseconds.
struct RegistrationStatus {
    /// Where a registration stands.
    enum class State : std::uint8_t {
        Announcing = 0,  ///< The registry has not confirmed the entry yet.
        Announced = 1,   ///< The registry holds the entry, by its last answer.
        Unreachable =
            2,     ///< Announced, but the last check got no answer that says so or denies it.
        Lost = 3,  ///< The registry has lost the entry; it is being announced again.
        Withdrawing = 4,  ///< A withdrawal was asked for and is not confirmed yet.
    };

    /// A request without success.
    struct Failure {
        /// When it ended.
        std::chrono::system_clock::time_point time;
        /// Ok: the registry refused.
        communication::CommunicationStatus communicationStatus =
            communication::CommunicationStatus::Other;
        /// The status code of the answer; 0 without one.
        int httpStatus = 0;
        /// For people: the method, the statuses, and the beginning of the answer's body, or why
        /// there is none: "PUT: CONNECT_FAILED: connection refused by 10.0.0.5:8500".
        std::string text;
    };

    /// The number that the log lines about this registration carry.
    std::uint64_t requestId = 0;
    /// The service's name.
    std::string name;
    /// The path that it is registered at.
    std::string uri;
    /// The registry, as "host:port".
    std::string endpoint;
    /// Of the entry; empty while the registry is not known to hold it.
    std::string uuid;
    /// Where the registration stands.
    State state = State::Announcing;
    /// When the state began.
    std::chrono::system_clock::time_point since;
    /// When the registry last said that it holds the entry; absent until then.
    std::optional<std::chrono::system_clock::time_point> lastConfirmed;
    /// Kept after a success; absent until a request has failed.
    std::optional<Failure> lastFailure;
    /// Requests that were sent for it since the last success.
    std::uint32_t attempts = 0;
    /// When the next request is due: a check, a retry. Absent while one is out, and when none is
    /// planned.
    std::optional<std::chrono::system_clock::time_point> nextAttempt;
};

/// "announcing", "announced", "unreachable", "lost" or "withdrawing"; an empty text for a value
/// that is none of them.
ORVX_EXPORT const char* registrationStateToString(RegistrationStatus::State state) noexcept;

/// What has just become of a registration.
struct RegistrationEvent {
    /// What happened.
    enum class Kind : std::uint8_t {
        Announced = 0,    ///< The registry holds the entry, for the first time or again.
        Unreachable = 1,  ///< A request failed, the first one after a success or the beginning.
        Reachable = 2,    ///< A request succeeded, or found a loss, the first one after that.
        Lost = 3,         ///< The registry has lost the entry.
        Withdrawn = 4,  ///< The entry is gone, as was asked for; or the registration was given up.
    };

    /// What happened.
    Kind kind = Kind::Announced;
    /// As it stands after the event. The reason of Unreachable and of Lost is its last failure.
    RegistrationStatus status;
};

/// "announced", "unreachable", "reachable", "lost" or "withdrawn"; an empty text for a value that
/// is none of them.
ORVX_EXPORT const char* registrationEventToString(RegistrationEvent::Kind kind) noexcept;

/// Takes an event; see OrvServiceRegistryContext::setRegistrationListener().
using RegistrationListener = std::function<void(const RegistrationEvent&)>;

}  // namespace orvx::serviceregistryclient
