#pragma once

#include <cstdint>

namespace orvx::serviceregistryclient {

/// Where a registration stands by the rules without resilience, in 32 bits. A transition is written
/// as the state that it leads to, and there are no others than these:
///
/// | from                            | event                                   | to            |
/// |---------------------------------|-----------------------------------------|---------------|
/// | (created, 5)                    | it is stored, before its first PUT      | REGISTERING   |
/// | REGISTERING, REREGISTERING      | a PUT succeeded                         | REGISTERED    |
/// | REGISTERED                      | a HEAD was answered 404                 | REREGISTERING |
/// | any but UNREGISTERING and 4     | a withdrawal was asked for, with an id  | UNREGISTERING |
/// | UNREGISTERING                   | the DELETE was refused                  | REGISTERED    |
///
/// The record is removed when the DELETE is answered 200.
class RegistrationState {
  public:
    /// The states that transitions lead to.
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
    operator std::uint32_t() const { return value_; }  // NOLINT: it is a number to those who look
    bool isUnregistering() const { return value_ == UNREGISTERING || value_ == kAlsoUnregistering; }

  private:
    friend class ClientTestAccess;
    /// Tests write what no transition leads to.
    RegistrationState& operator=(std::uint32_t value) {
        value_ = value;
        return *this;
    }

    static constexpr std::uint32_t kCreated = 5;
    /// Never written; where UNREGISTERING counts, it counts too.
    static constexpr std::uint32_t kAlsoUnregistering = 4;

    std::uint32_t value_ = kCreated;
};

}  // namespace orvx::serviceregistryclient
