// The names of states and events. Entered by any thread; no state, no lock.

#include <serviceregistryclient/RegistrationStatus.h>

namespace orvx::serviceregistryclient {

const char* registrationStateToString(RegistrationStatus::State state) noexcept {
    using State = RegistrationStatus::State;
    switch (state) {
        case State::Announcing:
            return "announcing";
        case State::Announced:
            return "announced";
        case State::Unreachable:
            return "unreachable";
        case State::Lost:
            return "lost";
        case State::Withdrawing:
            return "withdrawing";
    }
    return "";
}

const char* registrationEventToString(RegistrationEvent::Kind kind) noexcept {
    using Kind = RegistrationEvent::Kind;
    switch (kind) {
        case Kind::Announced:
            return "announced";
        case Kind::Unreachable:
            return "unreachable";
        case Kind::Reachable:
            return "reachable";
        case Kind::Lost:
            return "lost";
        case Kind::Withdrawn:
            return "withdrawn";
    }
    return "";
}

}  // namespace orvx::serviceregistryclient
