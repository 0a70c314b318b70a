// Draws each delay from the upper half of a step that doubles; a delay is at least 10 ms.
// A sequence is used by one thread at a time and has no lock. Sequences may be made by any thread:
// they share one atomic number.

#include <orvx/communication/QunaConnectionBackoffSequence.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <random>

namespace orvx::communication {

using std::chrono::milliseconds;

namespace {

constexpr std::uint64_t kLargestStep = milliseconds::max().count();
constexpr milliseconds kShortestDelay{10};

// The generator is splitmix64 (G. Steele, D. Lea, C. Flood, "Fast Splittable Pseudorandom Number
// Generators", 2014): a counter with a stride, and a bijective mixing function.
constexpr std::uint64_t kStride = 0x9e3779b97f4a7c15;

std::uint64_t mix(std::uint64_t number) {
    number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
    number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
    return number ^ (number >> 31);
}

/// Differs between processes. Without a source of randomness it is the time.
std::uint64_t processSeed() {
    try {
        std::random_device device;
        return (std::uint64_t{device()} << 32) | device();
    } catch (const std::exception&) {
        return static_cast<std::uint64_t>(
            std::chrono::system_clock::now().time_since_epoch().count());
    }
}

/// A new seed for each call. It is mixed so that two sequences are never the same numbers shifted
/// by one delay.
std::uint64_t newSeed() {
    static std::atomic<std::uint64_t> counter{processSeed()};
    return mix(counter.fetch_add(kStride));
}

}  // namespace

QunaConnectionBackoffSequence::QunaConnectionBackoffSequence(std::uint64_t maxDoublings,
                                                             std::uint64_t interval)
    : doublingsLeft_(maxDoublings), step_(std::min(interval, kLargestStep)), random_(newSeed()) {}

QunaConnectionBackoffSequence::~QunaConnectionBackoffSequence() = default;

milliseconds QunaConnectionBackoffSequence::nextDelay() {
    const std::uint64_t spread = step_ / 2;
    random_ += kStride;
    // The bias of the remainder is less than 2^-20 unless a step lasts centuries.
    const std::uint64_t delay = step_ - mix(random_) % (spread + 1);
    if (doublingsLeft_ > 0) {
        --doublingsLeft_;
        step_ = step_ > kLargestStep / 2 ? kLargestStep : step_ * 2;
    }
    return std::max(milliseconds(static_cast<milliseconds::rep>(delay)), kShortestDelay);
}

}  // namespace orvx::communication
