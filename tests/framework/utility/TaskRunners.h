#pragma once

#include <orvx/utility/QueuedTimer.h>
#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>

#include "Support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

/// The executor and the timer with the same operations, for tests of their common contract.
namespace orvx::utility::test {

struct Executor {
    static constexpr const char* name = "Executor";
    void start() { executor.start(); }
    void add(std::function<void()> task) { executor.add(std::move(task)); }
    void stop() { executor.stopAndClear(); }

    SingleThreadAsyncTaskExecutor executor{"ORVX_RunnerTestAndMore", nullptr};
};

struct Timer {
    static constexpr const char* name = "Timer";
    void start() { timer.start("ORVX_RunnerTestAndMore"); }
    void add(std::function<void()> task) {
        timer.addTask(std::chrono::milliseconds::zero(), std::move(task));
    }
    void stop() { timer.stop(); }

    QueuedTimer timer;
};

using TaskRunners = testing::Types<Executor, Timer>;

struct RunnerNames {
    template <typename Runner>
    static std::string GetName(int /*index*/) {
        return Runner::name;
    }
};

/// The runner is destroyed first, because its tasks use the other members.
template <typename Runner>
class TaskRunnerFixture : public testing::Test {
  protected:
    /// Whether a task that is added now runs.
    bool runsATask() {
        Event ran;
        runner->add([&] { ran.set(); });
        return ran.happens();
    }

    Journal<std::string> journal;
    Journal<std::thread::id> threads;
    Gate gate;
    Event event;
    std::unique_ptr<Runner> runner = std::make_unique<Runner>();
};

}  // namespace orvx::utility::test
