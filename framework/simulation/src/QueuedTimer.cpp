// The timer of a simulated world: World::advance() runs its tasks.
// Entered by the test's thread only; there is no lock.

#include <orvx/utility/QueuedTimer.h>

#include "SimulatedThread.h"

namespace orvx::utility {

struct QueuedTimer::State : simulation::SimulatedThread {
    State() : SimulatedThread(&simulation::WorldState::timers) {}
};

QueuedTimer::QueuedTimer() : state_(std::make_shared<State>()) {}

QueuedTimer::~QueuedTimer() {
    stop();
}

void QueuedTimer::start(const std::string& name) {
    state_->start(simulation::World::Step::StartTimer, name);
}

void QueuedTimer::addTask(std::chrono::milliseconds delay, Task task) {
    simulation::WorldState& world = state_->world();
    world.addedDelays.push_back(delay);
    if (isRunning()) {
        state_->add(world.dueAfter(delay), std::move(task));
    }
}

std::chrono::milliseconds QueuedTimer::now() const {
    return state_->world().now;
}

// A world begins on 1 January 2026.
std::chrono::system_clock::time_point QueuedTimer::systemNow() const {
    return std::chrono::system_clock::from_time_t(1767225600) + state_->world().now;
}

bool QueuedTimer::isRunning() const {
    return state_->isRunning();
}

void QueuedTimer::stop() {
    state_->stop();
}

}  // namespace orvx::utility
