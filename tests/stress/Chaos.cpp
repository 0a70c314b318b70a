// The users, and the faults while they work.
//
// Threads: used by the main thread, which owns everything and starts the users. No locks.

#include "Chaos.h"

#include "Descriptors.h"

namespace orvx::stress {

using namespace std::chrono_literals;

namespace {

constexpr int kSingles = 20;

}  // namespace

Chaos::Chaos(const ChaosOptions& options)
    : options_(options),
      random_(options.seed),
      registry_(options.seed, place_.traffic.tapMaker()),
      descriptors_(testing::openDescriptors()) {
    place_.port = registry_.port();
    for (int i = 0; i < kSingles; ++i) {
        const std::uint16_t maxRetryCount = i % 2 == 0 ? 0 : 3;
        singles_.push_back(
            std::make_unique<Single>(place_, "single" + std::to_string(i), maxRetryCount));
        units_.push_back(singles_.back().get());
    }
    // One crowd with usual times, in which checks end each other, and one without time-outs.
    crowds_.emplace_back(place_, "crowd", options.services, 2s);
    crowds_.emplace_back(place_, "calm", options.services / 4, 1h);
    for (Crowd& crowd : crowds_) {
        for (auto& member : crowd.units()) {
            units_.push_back(member.get());
            members_.push_back(std::move(member));
        }
    }
}

Chaos::~Chaos() = default;

void Chaos::run() {
    Users users(units_, options_.threads, options_.seed + 1);
    disturb();
    users.stop();
    registry_.cease();
}

void Chaos::disturb() {
    const auto end = std::chrono::steady_clock::now() + options_.duration;
    do {
        registry_.disturb();
        pace_.wait(milliseconds(std::uniform_int_distribution<int>(100, 600)(random_)));
    } while (std::chrono::steady_clock::now() < end);
}

}  // namespace orvx::stress
