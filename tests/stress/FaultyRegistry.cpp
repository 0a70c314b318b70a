// The faults: random ones of the network for each connection, and a registry that restarts empty,
// refuses connections, loses entries, and pauses.
//
// Threads: used by the owner's thread. Fault plans are drawn on the proxy's thread with the proxy's
// own generator. No locks.

#include "FaultyRegistry.h"

#include "Announcer.h"
#include "IntegrationSupport.h"
#include "RawConnection.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvx::stress {

using registry::RunningRegistry;

namespace {

std::size_t upTo(Random& random, std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(0, most)(random);
}

/// Adds a fault to this percentage of the directions.
Faults drawFaults(Random& random, std::size_t percentage) {
    Faults faults;
    faults.resetAfter = 1'000 + upTo(random, 20'000);  // no connection lives for ever
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

/// A request over a new connection reaches the registry, but its connection fails immediately.
FaultProxy::Plan cutEveryAnswer(Random& /*random*/) {
    FaultProxy::Plan plan;
    plan.toClient.resetAfter = 0;
    return plan;
}

std::unique_ptr<RunningRegistry> makeRegistry() {
    registry::RegistryOptions options;
    options.admin = true;
    return std::make_unique<RunningRegistry>(options);
}

}  // namespace

FaultyRegistry::FaultyRegistry(std::uint64_t seed, FaultProxy::TapMaker tapMaker)
    : random_(seed),
      registry_(makeRegistry()),
      proxy_(registry_->port(), seed, std::move(tapMaker)) {
    proxy_.setPlanner(plannerOf(25));
}

void FaultyRegistry::disturb() {
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
            restart();
            break;
        default:
            proxy_.setPlanner(cutEveryAnswer);
            break;
    }
}

void FaultyRegistry::restart() {
    auto next = makeRegistry();
    proxy_.setServerPort(next->port());
    registry_ = std::move(next);
    ++restarts_;
}

void FaultyRegistry::loseEntries() {
    const auto all = entries();
    std::vector<std::string> uuids(all.begin(), all.end());
    std::shuffle(uuids.begin(), uuids.end(), random_);
    uuids.resize(std::min<std::size_t>(uuids.size(), 1 + upTo(random_, 9)));
    std::string faults;
    for (const std::string& uuid : uuids) {
        faults += R"({"fault":"forget","uuid":")" + uuid + "\"}\n";
    }
    setFaults(faults);
    lost_ += uuids.size();
}

void FaultyRegistry::refuse() {
    proxy_.stopListening();
    pace_.wait(milliseconds(50 + upTo(random_, 300)));
    proxy_.listenAgain();
}

void FaultyRegistry::pause() {
    ++pauses_;
    const std::string duration = R"(,"seconds":)" + std::to_string(1 + upTo(random_, 2)) + "}";
    const std::string late = std::to_string(Announcer::kRequestTimeout.count() * 3 / 2);
    static const std::vector<std::string> kStatuses{"408", "429", "500", "503"};
    const std::string fault =
        upTo(random_, 2) > 0
            ? R"({"fault":"delay","milliseconds":)" + late
            : R"({"fault":"status","status":)" + kStatuses[upTo(random_, kStatuses.size() - 1)];
    setFaults(fault + duration);
}

/// Replaces the faults of the registry that were set before.
void FaultyRegistry::setFaults(const std::string& faults) {
    registry_->connect().ask(registry::makeRequest("PUT", "/-/faults", faults));
}

void FaultyRegistry::cease() {
    setFaults("");
    proxy_.listenAgain();
    proxy_.cease();
}

nlohmann::json FaultyRegistry::list() const {
    return serviceregistryclient::entriesAt(registry_->port());
}

std::set<std::string> FaultyRegistry::entries() const {
    std::set<std::string> uuids;
    for (const auto& entry : list()) {
        uuids.insert(entry.at("uuid"));
    }
    return uuids;
}

}  // namespace orvx::stress
