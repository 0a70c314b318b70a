#pragma once

#include <orvx/simulation/World.h>

#include <cstddef>
#include <map>
#include <utility>

namespace orvx::simulation {

class SimulatedThread;

/// When a task is due. Equal times are told apart by a number that grows with each task of the
/// world: they go in the order in which they were added, whatever their thread.
using Due = std::pair<std::chrono::milliseconds, std::uint64_t>;
using Schedule = std::map<Due, SimulatedThread*>;
/// By the number of the request, which grows as Due's does.
using Requests = std::map<std::uint64_t, std::shared_ptr<Request::Data>>;

/// What a world and all that is made in it share. Whoever was made in it keeps it, so that it may
/// end later than the world.
struct WorldState {
    /// That of the world in existence; throws std::logic_error when there is none.
    static std::shared_ptr<WorldState> current();

    /// Calls the hook; what it throws is the caller's to let through.
    void reach(World::Step step) const;
    /// `delay` from now: not before now, not beyond the largest duration.
    std::chrono::milliseconds later(std::chrono::milliseconds delay) const;
    /// Runs the first task due by `latest` whose thread is not inside a task already.
    bool runFirst(const Schedule& schedule,
                  std::chrono::milliseconds latest = std::chrono::milliseconds::max());

    std::chrono::milliseconds now{0};
    std::uint64_t lastNumber = 0;

    Schedule timers;
    Schedule executors;
    Schedule ioThreads;
    /// Tasks whose thread is not running.
    Schedule stopped;
    std::string currentThread;

    std::vector<std::chrono::milliseconds> addedDelays;
    Requests requestsToTake;
    std::size_t outstandingRequests = 0;
    std::vector<World::Session> sessions;
    std::function<void(World::Step)> hook;
};

}  // namespace orvx::simulation
