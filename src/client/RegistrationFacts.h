#pragma once

#include <serviceregistryclient/RegistrationStatus.h>

#include <orvx/communication/HttpResponse.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

namespace orvx::serviceregistryclient {

/// Data of a registration that getRegistrations() reports and that its own rules do not need. Times
/// are those of the timer's clock. Guarded by the client's lock.
struct RegistrationFacts {
    static constexpr std::chrono::milliseconds kNone = std::chrono::milliseconds::min();
    /// A longer duration could overflow the timer's clock.
    static constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365);

    struct Failure {
        std::chrono::milliseconds time;
        communication::CommunicationStatus communicationStatus;
        int httpStatus;
        std::string text;
    };

    /// Records that a request was sent.
    void requestSent() {
        ++attempts;
        due = kNone;
    }
    /// Sets the due time of the next request. A delay of more than a year counts as none.
    void plan(std::chrono::milliseconds now, std::chrono::milliseconds delay) {
        due = delay > kLongest ? kNone : now + std::max(delay, std::chrono::milliseconds::zero());
    }
    /// Enters the state. Returns false if it is the current state.
    bool enter(RegistrationStatus::State next, std::chrono::milliseconds now) {
        since = state == next ? since : now;
        return std::exchange(state, next) != next;
    }

    static std::shared_ptr<const Failure> failureOf(const char* method,
                                                    const communication::HttpResponse& response,
                                                    std::chrono::milliseconds now);

    std::chrono::milliseconds since{0};
    std::chrono::milliseconds confirmed = kNone;
    std::chrono::milliseconds due = kNone;
    std::shared_ptr<const Failure> failure;
    std::uint32_t attempts = 0;
    RegistrationStatus::State state = RegistrationStatus::State::Announcing;
    /// Whether the last request failed.
    bool failing = false;
};

}  // namespace orvx::serviceregistryclient
