// The common contract of the executor and the timer: one thread, its start and its end.

#include "Support.h"
#include "TaskRunners.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace orvx::utility {
namespace {

using Notes = std::vector<std::string>;

template <typename Runner>
class ATaskRunner : public test::TaskRunnerFixture<Runner> {};

TYPED_TEST_SUITE(ATaskRunner, test::TaskRunners, test::RunnerNames);

TYPED_TEST(ATaskRunner, RunsItsTasksOnOneThreadThatIsNotTheCallers) {
    this->runner->start();
    for (int i = 0; i < 2; ++i) {
        this->runner->add([&] { this->threads.write(std::this_thread::get_id()); });
    }
    const auto seen = this->threads.await(2);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_NE(seen[0], std::this_thread::get_id());
}

TYPED_TEST(ATaskRunner, NeverRunsATaskInsideTheOneThatAddsIt) {
    this->runner->start();
    this->runner->add([&] {
        this->runner->add([&] { this->journal.write("inner"); });
        this->journal.write("outer");
    });
    EXPECT_EQ(this->journal.await(2), (Notes{"outer", "inner"}));
}

TYPED_TEST(ATaskRunner, ShowsFifteenBytesOfItsNameAndBlocksSignalsInItsThread) {
    this->runner->start();
    this->runner->add(
        [&] { this->journal.write(test::openSignals().size() == 7 ? "blocked" : "open"); });
    EXPECT_EQ(this->journal.await(1), Notes{"blocked"});
    EXPECT_EQ(test::threadsNamed("ORVX_RunnerTest"), 1u);
    this->runner->stop();
    EXPECT_EQ(test::threadsNamed("ORVX_RunnerTest"), 0u);
}

TYPED_TEST(ATaskRunner, StartedTwiceHasOneThread) {
    this->runner->start();
    this->runner->start();
    ASSERT_TRUE(this->runsATask());
    EXPECT_EQ(test::threadsNamed("ORVX_RunnerTest"), 1u);
}

TYPED_TEST(ATaskRunner, RunsTheNextTaskAfterOneThatThrows) {
    this->runner->start();
    this->runner->add([] { throw std::runtime_error("failed"); });
    this->runner->add([] { throw 7; });
    this->runner->add(nullptr);
    EXPECT_TRUE(this->runsATask());
}

TYPED_TEST(ATaskRunner, ThatCannotBeStartedThrowsAndCanBeStartedLater) {
    {
        const test::ThreadsCannotBeMade fault;
        EXPECT_THROW(this->runner->start(), std::system_error);
        this->runner->stop();
    }
    this->runner->start();
    EXPECT_TRUE(this->runsATask());
}

TYPED_TEST(ATaskRunner, WaitsForTheRunningTaskWhenItIsStopped) {
    this->runner->start();
    this->runner->add(this->gate.task());
    ASSERT_TRUE(this->gate.isEntered());
    auto stop = std::async(std::launch::async, [&] { this->runner->stop(); });
    EXPECT_FALSE(test::isReady(stop, test::kAWhile));
    this->gate.open();
    EXPECT_TRUE(test::isReady(stop));
}

TYPED_TEST(ATaskRunner, WaitsForTheRunningTaskWhenItIsDestroyed) {
    this->runner->start();
    this->runner->add(this->gate.task());
    ASSERT_TRUE(this->gate.isEntered());
    auto end = std::async(std::launch::async, [&] { this->runner.reset(); });
    EXPECT_FALSE(test::isReady(end, test::kAWhile));
    this->gate.open();
    EXPECT_TRUE(test::isReady(end));
}

TYPED_TEST(ATaskRunner, StopsAgainAndAgain) {
    this->runner->stop();
    this->runner->start();
    ASSERT_TRUE(this->runsATask());
    this->runner->stop();
    this->runner->stop();
    this->runner->start();
    EXPECT_TRUE(this->runsATask());
}

TYPED_TEST(ATaskRunner, ThatIsStoppedByATaskRunsNoOther) {
    this->runner->start();
    this->runner->add([&] {
        this->gate.pass();
        this->runner->stop();
        this->journal.write("stopped");
    });
    ASSERT_TRUE(this->gate.isEntered());
    this->runner->add([&] { this->journal.write("queued"); });
    this->gate.open();
    this->journal.await(1);
    this->runner->start();
    EXPECT_TRUE(this->runsATask());
    EXPECT_EQ(this->journal.notes(), (Notes{"stopped"}));
}

TYPED_TEST(ATaskRunner, WaitsForATaskThatHasStoppedItWhenItIsStoppedFromOutsideToo) {
    this->runner->start();
    this->runner->add([&] {
        this->runner->stop();
        this->gate.pass();
    });
    ASSERT_TRUE(this->gate.isEntered());
    auto stop = std::async(std::launch::async, [&] { this->runner->stop(); });
    EXPECT_FALSE(test::isReady(stop, test::kAWhile));
    this->gate.open();
    EXPECT_TRUE(test::isReady(stop));
}

TYPED_TEST(ATaskRunner, WaitsForATaskThatHasStoppedItWhenItIsDestroyed) {
    this->runner->start();
    this->runner->add([&] {
        this->runner->stop();
        this->gate.pass();
    });
    ASSERT_TRUE(this->gate.isEntered());
    auto end = std::async(std::launch::async, [&] { this->runner.reset(); });
    EXPECT_FALSE(test::isReady(end, test::kAWhile));
    this->gate.open();
    EXPECT_TRUE(test::isReady(end));
}

TYPED_TEST(ATaskRunner, StoppedAndStartedByATaskRunsItsTasks) {
    this->runner->start();
    this->runner->add([&] {
        this->runner->stop();
        this->runner->start();
        this->runner->add([&] { this->threads.write(std::this_thread::get_id()); });
        this->threads.write(std::this_thread::get_id());
    });
    const auto seen = this->threads.await(2);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], seen[1]);
}

TYPED_TEST(ATaskRunner, StartedWhileATaskThatStoppedItStillRunsWaitsForThatTask) {
    this->runner->start();
    this->runner->add([&] {
        this->runner->stop();
        this->gate.pass();
        this->journal.write("old");
    });
    ASSERT_TRUE(this->gate.isEntered());
    this->runner->start();
    this->runner->add([&] { this->journal.write("new"); });
    this->gate.open();
    EXPECT_EQ(this->journal.await(2), (Notes{"old", "new"}));
}

TYPED_TEST(ATaskRunner, StartedAfterATaskHasStoppedItRunsTasksAgain) {
    for (std::size_t i = 1; i <= 20; ++i) {
        this->runner->start();
        this->runner->add([&] {
            this->runner->stop();
            this->journal.write("stopped");
        });
        ASSERT_EQ(this->journal.await(i).size(), i);
    }
    this->runner->start();
    EXPECT_TRUE(this->runsATask());
}

TYPED_TEST(ATaskRunner, MayBeDestroyedByATask) {
    this->runner->start();
    this->runner->add([&] {
        this->gate.pass();
        this->runner.reset();
        this->journal.write("destroyed");
    });
    ASSERT_TRUE(this->gate.isEntered());
    this->runner->add(test::watched([&] { this->journal.write("ran"); },
                                    [&] { this->journal.write("dropped"); }));
    this->gate.open();
    EXPECT_EQ(this->journal.await(2), (Notes{"dropped", "destroyed"}));
}

TYPED_TEST(ATaskRunner, MayBeDestroyedByATaskThatHasStoppedIt) {
    this->runner->start();
    this->runner->add([&] {
        this->runner->stop();
        this->runner.reset();
        this->event.set();
    });
    EXPECT_TRUE(this->event.happens());
}

TYPED_TEST(ATaskRunner, TakesTasksFromManyThreadsWhileItIsStoppedAndStarted) {
    std::vector<std::future<void>> adders;
    for (int i = 0; i < 3; ++i) {
        adders.push_back(std::async(std::launch::async, [&] {
            for (int task = 0; task < 500; ++task) {
                this->runner->add(test::nothing);
            }
        }));
    }
    for (int i = 0; i < 20; ++i) {
        this->runner->start();
        this->runner->stop();
    }
    for (auto& adder : adders) {
        EXPECT_TRUE(test::isReady(adder));
    }
    this->runner->start();
    EXPECT_TRUE(this->runsATask());
}

}  // namespace
}  // namespace orvx::utility
