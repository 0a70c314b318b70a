#pragma once

#include "WorldState.h"

namespace orvx::simulation {

/// A thread of a simulated world: its name and its pending tasks, which run one at a time.
/// Owned by a shared pointer; it lives on while it runs a task that destroys its owner.
class SimulatedThread : public std::enable_shared_from_this<SimulatedThread> {
  public:
    using Task = std::function<void()>;

    /// Makes a thread of the existing world; throws std::logic_error if there is none. `schedule`
    /// contains its tasks while it is running.
    explicit SimulatedThread(Schedule WorldState::*schedule);

    WorldState& world() const { return *world_; }
    bool isRunning() const { return running_; }
    /// Whether the thread is running a task.
    bool isBusy() const { return busy_; }

    /// Sets the handler that is called on this thread with what() of exceptions that leave tasks;
    /// may be empty.
    void setErrorHandler(std::function<void(const std::string&)> errorHandler);
    /// Runs the hook of `step`, which may throw, and starts the thread. Does nothing while it is
    /// running.
    void start(World::Step step, const std::string& name);
    /// Adds a task. On a stopped thread the task waits for the next start. Strong exception
    /// guarantee.
    void add(std::chrono::milliseconds due, Task task);
    /// Drops the tasks. Does nothing while it is stopped.
    void stop();
    /// Stops for ever: drops the tasks and refuses new ones.
    void end();

    /// Removes the task, runs and destroys it.
    void runTask(const Due& due);
    /// Runs and destroys the task at once, on this thread.
    void run(Task task);

  private:
    void dropTasks();
    void report(const std::string& error) noexcept;

    std::shared_ptr<WorldState> world_;
    Schedule& schedule_;
    std::function<void(const std::string&)> errorHandler_;
    std::string name_;
    bool running_ = false;
    bool busy_ = false;
    bool ended_ = false;
    std::map<Due, Task> tasks_;
};

}  // namespace orvx::simulation
