#pragma once

#include "WorldState.h"

namespace orvx::simulation {

/// A thread of a simulated world: its name and the tasks that it is still to run, one at a time.
/// Owned by a shared pointer; it lives on while it runs a task that destroys its owner.
class SimulatedThread : public std::enable_shared_from_this<SimulatedThread> {
  public:
    using Task = std::function<void()>;

    /// A thread of the world in existence; throws std::logic_error when there is none.
    /// `schedule` is where its tasks stand while it is running.
    explicit SimulatedThread(Schedule WorldState::*schedule);

    WorldState& world() const { return *world_; }
    bool isRunning() const { return running_; }
    /// Whether it is inside a task.
    bool isBusy() const { return busy_; }

    /// Told what() of the exceptions that leave tasks, on this thread; may be empty.
    void setErrorHandler(std::function<void(const std::string&)> errorHandler);
    /// Passes `step`, which may throw, and starts. Does nothing while it is running.
    void start(World::Step step, const std::string& name);
    /// Waits for the next start while it is stopped. Strong guarantee.
    void add(std::chrono::milliseconds due, Task task);
    /// Drops the tasks. Does nothing while it is stopped.
    void stop();
    /// Stops for ever: no task is left, and none is taken any more.
    void end();

    /// Takes out the task, runs and destroys it.
    void runTask(const Due& due);
    /// Runs and destroys the task at once as this thread.
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
