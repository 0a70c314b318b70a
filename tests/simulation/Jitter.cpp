// A second definition of the back-off, for programs that must play a history twice: it draws the
// same delays again, while the delays of the library differ between processes. One thread.
#include "Jitter.h"

#include "RandomHistory.h"

#include <orvx/communication/QunaConnectionBackoffSequence.h>

#include <algorithm>

namespace orvx {

namespace simulation {

namespace {

Random jitter(0);

}  // namespace

void seedJitter(std::uint64_t seed) {
    jitter = Random(seed);
}

}  // namespace simulation

namespace communication {

QunaConnectionBackoffSequence::QunaConnectionBackoffSequence(std::uint64_t maxDoublings,
                                                             std::uint64_t interval)
    : doublingsLeft_(maxDoublings), step_(interval), random_(simulation::jitter.below(~0U)) {}

QunaConnectionBackoffSequence::~QunaConnectionBackoffSequence() = default;

std::chrono::milliseconds QunaConnectionBackoffSequence::nextDelay() {
    const std::uint64_t delay =
        step_ - simulation::Random(random_++).below(static_cast<unsigned>(step_ / 2 + 1));
    if (doublingsLeft_ > 0) {
        --doublingsLeft_;
        step_ *= 2;
    }
    constexpr std::uint64_t least = 10;
    return std::chrono::milliseconds(std::max(delay, least));
}

}  // namespace communication

}  // namespace orvx
