// Tasks by due time. Each task is also an entry of one of the world's schedules.
// Entered by the test's thread only; there is no lock. Tasks run and are destroyed while the state
// is consistent: they may add tasks, stop the thread and destroy its owner.

#include "SimulatedThread.h"

#include <orvx/utility/WorkerThread.h>

namespace orvx::simulation {

namespace {

/// Gives a variable another value for its own lifetime.
template <typename T>
class Override {
  public:
    Override(T& variable, T value)
        : variable_(variable), before_(std::exchange(variable, std::move(value))) {}
    ~Override() { variable_ = std::move(before_); }
    Override(const Override&) = delete;
    Override& operator=(const Override&) = delete;

  private:
    T& variable_;
    T before_;
};

}  // namespace

SimulatedThread::SimulatedThread(Schedule WorldState::*schedule)
    : world_(WorldState::current()), schedule_((*world_).*schedule) {}

void SimulatedThread::setErrorHandler(std::function<void(const std::string&)> errorHandler) {
    errorHandler_ = std::move(errorHandler);
}

void SimulatedThread::start(World::Step step, const std::string& name) {
    if (running_) {
        return;
    }
    world_->passStep(step);
    name_ = name.substr(0, utility::WorkerThread::kLongestName);
    running_ = true;
    for (const auto& task : tasks_) {
        schedule_.insert(world_->stopped.extract(task.first));
    }
}

void SimulatedThread::add(std::chrono::milliseconds due, Task task) {
    if (ended_) {
        return;
    }
    const Due key{due, ++world_->lastNumber};
    std::map<Due, Task> added;
    added.emplace(key, std::move(task));
    (running_ ? schedule_ : world_->stopped).emplace(key, this);
    tasks_.merge(added);  // cannot fail: the task is in both maps or in neither
}

void SimulatedThread::stop() {
    if (running_) {
        dropTasks();
    }
}

void SimulatedThread::end() {
    ended_ = true;
    dropTasks();
}

void SimulatedThread::dropTasks() {
    Schedule& schedule = running_ ? schedule_ : world_->stopped;
    running_ = false;
    for (const auto& task : tasks_) {
        schedule.erase(task.first);
    }
    // Destroyed last and in a local map: destructors of tasks may add tasks and destroy the owner.
    const auto dropped = std::exchange(tasks_, {});
}

void SimulatedThread::runTask(const Due& due) {
    schedule_.erase(due);
    run(std::move(tasks_.extract(due).mapped()));
}

void SimulatedThread::run(Task task) {
    const auto self = shared_from_this();
    const Override currentThread(world_->currentThread, name_);
    const Override busy(busy_, true);
    try {
        task();
    } catch (const std::exception& exception) {
        report(exception.what());
    } catch (...) {
        report("unknown exception");
    }
    task = nullptr;  // destroyed while still on this thread
}

void SimulatedThread::report(const std::string& error) noexcept {
    try {
        if (errorHandler_) {
            errorHandler_(error);
        }
    } catch (...) {  // dropped
    }
}

}  // namespace orvx::simulation
