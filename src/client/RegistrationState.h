#pragma once

#include <cstdint>

namespace orvx::serviceregistryclient {

/// The state of a registration without resilience, in 32 bits. A transition is written as an
/// assignment of its target. These are all transitions:
///
/// | from                            | event                                   | to            |
/// |---------------------------------|-----------------------------------------|---------------|
/// | (created, 5)                    | it is stored, before its first PUT      | REGISTERING   |
/// | REGISTERING, REREGISTERING      | a PUT succeeded                         | REGISTERED    |
/// | REGISTERED                      | a HEAD was answered 404                 | REREGISTERING |
/// | any but UNREGISTERING and 4     | a withdrawal was asked for, with an id  | UNREGISTERING |
/// | UNREGISTERING                   | the DELETE was refused                  | REGISTERED    |
///
/// The record is removed when the DELETE is answered 200, or when the registration has failed for
/// good.
class RegistrationState {
  public:
    /// The targets of transitions.
    enum Target : std::uint32_t {
        REGISTERING = 0,
        REREGISTERING = 1,
        REGISTERED = 2,
        UNREGISTERING = 3,
    };

    RegistrationState& operator=(Target target) {
        value_ = target;
        return *this;
    }
    operator std::uint32_t() const { return value_; }  // NOLINT: implicit on purpose
    bool isUnregistering() const { return value_ == UNREGISTERING || value_ == kAlsoUnregistering; }

  private:
    friend class ClientTestAccess;
    /// For tests that set other values.
    RegistrationState& operator=(std::uint32_t value) {
        value_ = value;
        return *this;
    }

    static constexpr std::uint32_t kCreated = 5;
    /// Never assigned by the client; treated like UNREGISTERING.
    static constexpr std::uint32_t kAlsoUnregistering = 4;

    std::uint32_t value_ = kCreated;
};

}  // namespace orvx::serviceregistryclient
