// The disturbances: faults of the network drawn for each connection, a registry that is restarted
// empty, refuses connections, and loses entries.
//
// Threads: this is the main thread's, which owns everything and starts the users. Fault plans are
// drawn on the proxy's thread with the proxy's own generator. No locks.

#include "Chaos.h"

#include "Descriptors.h"
#include "RawConnection.h"
#include "Road.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvx::stress {

using namespace std::chrono_literals;

namespace {

constexpr int kSingles = 20;

std::size_t upTo(Random& random, std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(0, most)(random);
}

/// In so many of a hundred directions something is wrong.
Faults drawFaults(Random& random, std::size_t percentage) {
    Faults faults;
    faults.resetAfter = 1'000 + upTo(random, 20'000);  // nothing stays as it is for ever
    if (upTo(random, 99) >= percentage) {
        return faults;
    }
    switch (upTo(random, 7)) {
        case 0:
        case 1:
            faults.longestDelay = milliseconds(1 + upTo(random, 100));
            break;
        case 2:
            faults.pieceBytes = 1 + upTo(random, 30);
            faults.longestDelay = milliseconds(upTo(random, 4));
            break;
        case 3:
            faults.bytesPerSecond = 1'000 + upTo(random, 10'000);
            break;
        case 4:
            faults.blackHole = true;
            break;
        case 5:
            faults.closeAfter = upTo(random, 2'000);
            break;
        default:
            faults.resetAfter = upTo(random, 2'000);
    }
    return faults;
}

FaultProxy::Planner plannerOf(std::size_t percentage) {
    return [percentage](Random& random) {
        const Faults toServer = drawFaults(random, percentage);
        return FaultProxy::Plan{toServer, drawFaults(random, percentage)};
    };
}

/// A request over a new connection reaches the registry, and fails at once.
FaultProxy::Plan cutEveryAnswer(Random& /*random*/) {
    FaultProxy::Plan plan;
    plan.toClient.resetAfter = 0;
    return plan;
}

}  // namespace

Chaos::Chaos(const ChaosOptions& options)
    : options_(options),
      random_(options.seed),
      registry_(std::make_unique<registry::RunningRegistry>()),
      proxy_(registry_->port(), options.seed, place_.traffic.tapMaker()),
      descriptors_(testing::openDescriptors()) {
    place_.port = proxy_.port();
    for (int i = 0; i < kSingles; ++i) {
        const std::uint16_t maxRetryCount = i % 2 == 0 ? 0 : 3;
        singles_.push_back(
            std::make_unique<Single>(place_, "single" + std::to_string(i), maxRetryCount));
        units_.push_back(singles_.back().get());
    }
    // One with times as users have them, whose checks end each other; and one without time-outs.
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
    proxy_.setPlanner(plannerOf(25));
    Users users(units_, options_.threads, options_.seed + 1);
    disturb();
    users.stop();
    proxy_.listenAgain();
    proxy_.cease();
}

void Chaos::disturb() {
    const auto end = std::chrono::steady_clock::now() + options_.duration;
    do {
        draw();
        pace_.wait(milliseconds(100 + upTo(random_, 500)));
    } while (std::chrono::steady_clock::now() < end);
}

void Chaos::draw() {
    switch (upTo(random_, 9)) {
        case 0:
            proxy_.setPlanner({});
            break;
        case 1:
        case 2:
            proxy_.setPlanner(plannerOf(10));
            break;
        case 3:
        case 4:
            proxy_.setPlanner(plannerOf(40));
            break;
        case 5:
        case 6:
            loseEntries();
            break;
        case 7:
            refuse();
            break;
        case 8:
            restartRegistry();
            break;
        default:
            proxy_.setPlanner(cutEveryAnswer);
            break;
    }
}

/// It comes back empty.
void Chaos::restartRegistry() {
    auto next = std::make_unique<registry::RunningRegistry>();
    proxy_.setServerPort(next->port());
    registry_ = std::move(next);
    ++restarts_;
}

void Chaos::loseEntries() {
    const auto all = entries();
    std::vector<std::string> uuids(all.begin(), all.end());
    std::shuffle(uuids.begin(), uuids.end(), random_);
    uuids.resize(std::min<std::size_t>(uuids.size(), 1 + upTo(random_, 9)));
    for (const std::string& uuid : uuids) {
        registry_->connect().ask(registry::makeRequest("DELETE", '/' + uuid));
        ++lost_;
    }
}

void Chaos::refuse() {
    proxy_.stopListening();
    pace_.wait(milliseconds(50 + upTo(random_, 300)));
    proxy_.listenAgain();
}

std::set<std::string> Chaos::entries() const {
    std::set<std::string> uuids;
    for (const auto& entry : serviceregistryclient::entriesAt(registry_->port())) {
        uuids.insert(entry.at("uuid"));
    }
    return uuids;
}

}  // namespace orvx::stress
