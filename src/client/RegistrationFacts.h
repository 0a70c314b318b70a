#pragma once

#include <serviceregistryclient/RegistrationStatus.h>

#include <orvx/communication/HttpResponse.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

namespace orvx::serviceregistryclient {

/// What getRegistrations() tells of a registration and its own rules do not need. Times are those
/// of the timer's clock, in milliseconds. Guarded by the client's lock.
struct RegistrationFacts {
    static constexpr std::chrono::milliseconds none = std::chrono::milliseconds::min();

    struct Failure {
        std::chrono::milliseconds time;
        communication::CommunicationStatus communicationStatus;
        int httpStatus;
        std::string text;
    };

    /// A request is out.
    void requestSent() {
        ++attempts;
        due = none;
    }
    /// The next request is due after that, by what it was told.
    void plan(std::chrono::milliseconds now, std::chrono::milliseconds delay) {
        constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365);
        due = delay > longest ? none : now + std::max(delay, std::chrono::milliseconds::zero());
    }
    /// False when it stands there already.
    bool enter(RegistrationStatus::State next, std::chrono::milliseconds now) {
        since = state == next ? since : now;
        return std::exchange(state, next) != next;
    }

    static std::shared_ptr<const Failure> failureOf(const char* method,
                                                    const communication::HttpResponse& response,
                                                    std::chrono::milliseconds now);

    std::chrono::milliseconds since{0};
    std::chrono::milliseconds confirmed = none;
    std::chrono::milliseconds due = none;
    std::shared_ptr<const Failure> failure;
    std::uint32_t attempts = 0;
    RegistrationStatus::State state = RegistrationStatus::State::Announcing;
    /// The last request failed.
    bool failing = false;
};

}  // namespace orvx::serviceregistryclient
