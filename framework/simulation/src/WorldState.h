#pragma once

#include <orvx/simulation/World.h>

#include <cstddef>
#include <map>
#include <utility>

namespace orvx::simulation {

class SimulatedThread;

/// The due time of a task, and a number that grows with each task of the world: tasks with equal
/// due times run in the order in which they were added, whatever their thread.
using Due = std::pair<std::chrono::milliseconds, std::uint64_t>;
using Schedule = std::map<Due, SimulatedThread*>;
/// By the number of the request, which comes from the same counter as the number in Due.
using Requests = std::map<std::uint64_t, std::shared_ptr<Request::Data>>;

/// The state that a world and all objects made in it share. These objects keep it alive, so they
/// may outlive the world.
struct WorldState {
    /// The state of the existing world; throws std::logic_error if there is none.
    static std::shared_ptr<WorldState> current();

    /// Calls the hook. Exceptions of the hook leave this function.
    void passStep(World::Step step) const;
    /// The time `delay` from now, but not before now and not beyond the largest duration.
    std::chrono::milliseconds dueAfter(std::chrono::milliseconds delay) const;
    /// Runs the first task that is due by `latest` and whose thread is not running a task.
    bool runFirst(const Schedule& schedule,
                  std::chrono::milliseconds latest = std::chrono::milliseconds::max());

    std::chrono::milliseconds now{0};
    std::uint64_t lastNumber = 0;

    Schedule timers;
    Schedule executors;
    Schedule ioThreads;
    /// Tasks of threads that are not running.
    Schedule stopped;
    std::string currentThread;

    std::vector<std::chrono::milliseconds> addedDelays;
    Requests requestsToTake;
    std::size_t outstandingRequests = 0;
    std::vector<World::Session> sessions;
    std::function<void(World::Step)> hook;
};

}  // namespace orvx::simulation
