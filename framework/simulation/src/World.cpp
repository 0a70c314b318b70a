// The world: the clock, the schedules and the requests that wait for the test.
// Entered by the test's thread only; there is no lock.

#include <orvx/simulation/World.h>

#include "SimulatedThread.h"
#include "WorldState.h"

#include <algorithm>
#include <stdexcept>

namespace orvx::simulation {

using std::chrono::milliseconds;

namespace {

/// The existing world. Its state may outlive it.
std::weak_ptr<WorldState>& existing() {
    static std::weak_ptr<WorldState> state;
    return state;
}

}  // namespace

std::shared_ptr<WorldState> WorldState::current() {
    auto state = existing().lock();
    if (!state) {
        throw std::logic_error(
            "this program simulates time, threads and network: "
            "make an orvx::simulation::World before what is to live in it");
    }
    return state;
}

void WorldState::passStep(World::Step step) const {
    if (const auto called = hook) {
        called(step);
    }
}

milliseconds WorldState::dueAfter(milliseconds delay) const {
    return delay > milliseconds::max() - now ? milliseconds::max()
                                             : now + std::max(delay, milliseconds(0));
}

bool WorldState::runFirst(const Schedule& schedule, milliseconds latest) {
    const auto next = std::find_if(schedule.begin(), schedule.end(),
                                   [](const auto& task) { return !task.second->isBusy(); });
    if (next == schedule.end() || next->first.first > latest) {
        return false;
    }
    const auto [due, thread] = *next;
    now = std::max(now, due.first);
    thread->runTask(due);
    return true;
}

World::World() : state_(std::make_shared<WorldState>()) {
    if (!existing().expired()) {
        throw std::logic_error("there is an orvx::simulation::World already");
    }
    existing() = state_;
}

World::~World() {
    existing().reset();
}

milliseconds World::now() const {
    return state_->now;
}

void World::advance(milliseconds duration) {
    const milliseconds end = state_->dueAfter(duration);
    while (state_->runFirst(state_->timers, std::max(end, state_->now))) {
    }
    state_->now = std::max(end, state_->now);
}

std::optional<milliseconds> World::nextDelay() const {
    const Schedule& timers = state_->timers;
    return timers.empty() ? std::nullopt : std::optional(timers.begin()->first.first - state_->now);
}

std::vector<milliseconds> World::pendingDelays() const {
    std::vector<milliseconds> delays;
    for (const auto& task : state_->timers) {
        delays.push_back(task.first.first - state_->now);
    }
    return delays;
}

std::vector<milliseconds> World::takeAddedDelays() {
    return std::exchange(state_->addedDelays, {});
}

void World::settle() {
    while (state_->runFirst(state_->ioThreads) || state_->runFirst(state_->executors)) {
    }
}

void World::runIo() {
    while (state_->runFirst(state_->ioThreads)) {
    }
}

std::size_t World::queuedTasks() const {
    return state_->executors.size() + state_->stopped.size();
}

std::string World::currentThread() const {
    return state_->currentThread;
}

std::optional<Request> World::takeRequest() {
    Requests& requests = state_->requestsToTake;
    if (requests.empty()) {
        return std::nullopt;
    }
    return Request(std::move(requests.extract(requests.begin()).mapped()));
}

std::size_t World::requestsToTake() const {
    return state_->requestsToTake.size();
}

std::size_t World::outstandingRequests() const {
    return state_->outstandingRequests;
}

const std::vector<World::Session>& World::sessions() const {
    return state_->sessions;
}

void World::setHook(std::function<void(Step)> hook) {
    state_->hook = std::move(hook);
}

}  // namespace orvx::simulation
