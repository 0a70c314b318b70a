// The executor of a simulated world: World::settle() runs its tasks.
// Entered by the test's thread only; there is no lock.

#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>

#include "SimulatedThread.h"

namespace orvx::utility {

struct SingleThreadAsyncTaskExecutor::State : simulation::SimulatedThread {
    explicit State(std::string threadName)
        : SimulatedThread(&simulation::WorldState::executors), name(std::move(threadName)) {}

    const std::string name;
};

SingleThreadAsyncTaskExecutor::SingleThreadAsyncTaskExecutor(std::string threadName,
                                                             ErrorHandler errorHandler)
    : state_(std::make_shared<State>(std::move(threadName))) {
    state_->setErrorHandler(std::move(errorHandler));
}

SingleThreadAsyncTaskExecutor::~SingleThreadAsyncTaskExecutor() {
    state_->end();
}

void SingleThreadAsyncTaskExecutor::start() {
    state_->start(simulation::World::Step::StartExecutor, state_->name);
}

void SingleThreadAsyncTaskExecutor::add(Task task) {
    state_->add(std::chrono::milliseconds(0), std::move(task));
}

// Allocates memory, unlike the real executor: tests that run out of memory use real threads.
void SingleThreadAsyncTaskExecutor::add(Tasks&& tasks) noexcept {
    for (Task& task : tasks) {
        add(std::move(task));
    }
}

void SingleThreadAsyncTaskExecutor::stopAndClear() {
    state_->stop();
}

}  // namespace orvx::utility
