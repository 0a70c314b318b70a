// The delays between attempts, each drawn from the upper half of a step that doubles, and at least
// 10 ms.
// A sequence is used by one thread at a time and has no lock; sequences may be made by any thread:
// what they share is one atomic number.

#include <orvx/communication/QunaConnectionBackoffSequence.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <random>

namespace orvx::communication {

using std::chrono::milliseconds;

namespace {

constexpr std::uint64_t largestStep = milliseconds::max().count();
constexpr milliseconds leastDelay{10};

// The generator is splitmix64 (G. Steele, D. Lea, C. Flood, "Fast Splittable Pseudorandom Number
// Generators", 2014): a counter with a stride, and a one-to-one mixing of what it shows.
constexpr std::uint64_t stride = 0x9e3779b97f4a7c15;

std::uint64_t mix(std::uint64_t number) {
    number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
    number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
    return number ^ (number >> 31);
}

/// Differs from process to process; without a source of randomness, by the time at least.
std::uint64_t processSeed() {
    try {
        std::random_device device;
        return (std::uint64_t{device()} << 32) | device();
    } catch (const std::exception&) {
        return static_cast<std::uint64_t>(
            std::chrono::system_clock::now().time_since_epoch().count());
    }
}

/// Another one with each call. Mixed: a sequence must not be the next one's, shifted by a delay.
std::uint64_t newSeed() {
    static std::atomic<std::uint64_t> counter{processSeed()};
    return mix(counter.fetch_add(stride));
}

}  // namespace

QunaConnectionBackoffSequence::QunaConnectionBackoffSequence(std::uint64_t maxDoublings,
                                                             std::uint64_t interval)
    : doublingsLeft_(maxDoublings), step_(std::min(interval, largestStep)), random_(newSeed()) {}

QunaConnectionBackoffSequence::~QunaConnectionBackoffSequence() = default;

milliseconds QunaConnectionBackoffSequence::nextDelay() {
    const std::uint64_t spread = step_ / 2;
    random_ += stride;
    // The remainder prefers no delay by more than 2^-20 unless a step lasts centuries.
    const std::uint64_t delay = step_ - mix(random_) % (spread + 1);
    if (doublingsLeft_ > 0) {
        --doublingsLeft_;
        step_ = step_ > largestStep / 2 ? largestStep : step_ * 2;
    }
    return std::max(milliseconds(static_cast<milliseconds::rep>(delay)), leastDelay);
}

}  // namespace orvx::communication
