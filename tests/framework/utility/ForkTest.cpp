// A forked child does nothing with the threads of its parent. An alarm ends a child that hangs, and
// its test fails.

#include <orvx/utility/QueuedTimer.h>
#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>
#include <orvx/utility/WorkerThread.h>

#include "Support.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace orvx::utility {
namespace {

using test::Event;
using test::Gate;
using test::Journal;

/// Runs `work` in a forked child, which then calls exit(). Returns the wait status: zero if `work`
/// returned true.
int statusOfChild(const std::function<bool()>& work) {
    std::fflush(nullptr);
    const auto child = fork();
    if (child == 0) {
        alarm(static_cast<unsigned>(test::kBound.count()));
        std::exit(work() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

/// Returns when the worker of `started` is in its loop.
template <typename AddTask>
void awaitWorker(AddTask addTask) {
    Event ran;
    addTask([&] { ran.set(); });
    EXPECT_TRUE(ran.happens());
}

template <typename Thing>
bool destroy(std::unique_ptr<Thing>& thing) {
    thing.reset();
    return true;
}

TEST(AForkedChild, StopsAndDestroysAnIdleExecutor) {
    auto executor = std::make_unique<SingleThreadAsyncTaskExecutor>("ORVX_Fork", nullptr);
    executor->start();
    awaitWorker([&](auto task) { executor->add(task); });
    EXPECT_EQ(statusOfChild([&] {
                  executor->stopAndClear();
                  return destroy(executor);
              }),
              0);
}

TEST(AForkedChild, DestroysABusyExecutorWithoutDroppingItsTasks) {
    Gate gate;
    bool dropped = false;
    auto executor = std::make_unique<SingleThreadAsyncTaskExecutor>("ORVX_Fork", nullptr);
    executor->start();
    executor->add(gate.task());
    executor->add(test::watched(test::nothing, [&] { dropped = true; }));
    ASSERT_TRUE(gate.isEntered());
    EXPECT_EQ(statusOfChild([&] { return destroy(executor) && !dropped; }), 0);
    gate.open();
}

TEST(AForkedChild, StopsAndDestroysATimerWithPendingTasks) {
    auto timer = std::make_unique<QueuedTimer>();
    timer->start("ORVX_Fork");
    timer->addTask(std::chrono::hours(1), test::nothing);
    awaitWorker([&](auto task) { timer->addTask({}, task); });
    EXPECT_EQ(statusOfChild([&] {
                  timer->stop();
                  return destroy(timer);
              }),
              0);
}

TEST(AForkedChild, DestroysWhatWasNeverStartedWithoutDroppingItsTasks) {
    bool dropped = false;
    auto executor = std::make_unique<SingleThreadAsyncTaskExecutor>("ORVX_Fork", nullptr);
    auto timer = std::make_unique<QueuedTimer>();
    executor->add(test::watched(test::nothing, [&] { dropped = true; }));
    EXPECT_EQ(statusOfChild([&] { return destroy(executor) && destroy(timer) && !dropped; }), 0);
}

TEST(AForkedChild, ExitsWithAStaticExecutorAndTimer) {
    static SingleThreadAsyncTaskExecutor executor("ORVX_Fork", nullptr);
    static QueuedTimer timer;
    executor.start();
    timer.start("ORVX_Fork");
    awaitWorker([&](auto task) { executor.add(task); });
    awaitWorker([&](auto task) { timer.addTask({}, task); });
    EXPECT_EQ(statusOfChild([] { return true; }), 0);
    executor.stopAndClear();
    timer.stop();
}

TEST(AForkedChild, OfATaskDestroysTheExecutorOfThatTask) {
    Journal<int> status;
    auto executor = std::make_unique<SingleThreadAsyncTaskExecutor>("ORVX_Fork", nullptr);
    executor->start();
    executor->add([&] {
        // Without exit(): a leak checker would report objects that only the lost main thread refers
        // to.
        status.write(statusOfChild([&]() -> bool {
            executor.reset();
            _exit(0);
        }));
    });
    EXPECT_EQ(status.await(1), std::vector<int>{0});
}

TEST(AForkedChild, StartsAndEndsAThreadOfItsOwn) {
    bool ran = false;
    WorkerThread worker;
    EXPECT_EQ(statusOfChild([&] {
                  worker.start("ORVX_Fork", [&] { ran = true; });
                  const bool isInForkedChild = worker.isInForkedChild();
                  worker.end();
                  return ran && !isInForkedChild;
              }),
              0);
}

TEST(AForkedChild, LeavesTheThreadsOfItsParentRunning) {
    SingleThreadAsyncTaskExecutor executor("ORVX_Fork", nullptr);
    executor.start();
    // A worker that is just starting may hold the lock of the sanitizer's allocator when the child
    // is made.
    awaitWorker([&](auto task) { executor.add(task); });
    EXPECT_EQ(statusOfChild([&] {
                  executor.stopAndClear();
                  return true;
              }),
              0);
    awaitWorker([&](auto task) { executor.add(task); });
}

/// Whether SIGTERM is blocked in a child that a worker thread forks.
bool doesChildOfWorkerBlockSigterm(const std::function<void()>& beforeFork) {
    int status = -1;
    WorkerThread worker;
    worker.start("ORVX_Fork", [&] {
        beforeFork();
        status = statusOfChild([]() -> bool {
            sigset_t blocked;
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
            _exit(sigismember(&blocked, SIGTERM));
        });
    });
    worker.end();
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status) == 1;
}

// The child, and the program that it executed, once had the mask of the worker.
TEST(AForkedChild, OfAWorkerHasTheSignalMaskOfTheThreadThatMadeTheWorker) {
    sigset_t terminate;
    sigset_t before;
    sigemptyset(&terminate);
    sigaddset(&terminate, SIGTERM);
    EXPECT_FALSE(doesChildOfWorkerBlockSigterm(test::nothing));
    pthread_sigmask(SIG_BLOCK, &terminate, &before);
    EXPECT_TRUE(doesChildOfWorkerBlockSigterm(test::nothing));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(AForkedChild, OfAWorkerKeepsAMaskThatWasSetThere) {
    EXPECT_TRUE(doesChildOfWorkerBlockSigterm([] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
    }));
}

TEST(AForkedChild, KnowsThatAWorkerThreadIsItsParents) {
    Gate gate;
    auto worker = std::make_unique<WorkerThread>();
    worker->start("ORVX_Fork", gate.task());
    ASSERT_TRUE(gate.isEntered());
    EXPECT_EQ(statusOfChild([&] {
                  const bool isInForkedChild = worker->isInForkedChild();
                  worker->end();
                  return destroy(worker) && isInForkedChild;
              }),
              0);
    gate.open();
}

}  // namespace
}  // namespace orvx::utility
