// The timer's contract beyond the part that it shares with the executor. A test cannot set the
// system's time, so it is not tested that this has no effect.

#include <orvx/utility/QueuedTimer.h>

#include "Support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <random>

namespace orvx::utility {
namespace {

using test::Event;
using test::Gate;
using test::Journal;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Notes = std::vector<std::string>;

/// A timer whose thread is held until the test opens the gate: tasks that are added until then are
/// pending.
class TheTimer : public testing::Test {
  protected:
    void hold() {
        timer.start("ORVX_Timer");
        timer.addTask(milliseconds::zero(), gate.task());
        ASSERT_TRUE(gate.isEntered());
    }
    void addNote(milliseconds delay, const std::string& note) {
        timer.addTask(delay, [this, note] { journal.write(note); });
    }

    Journal<std::string> journal;
    Gate gate;
    QueuedTimer timer;
};

TEST_F(TheTimer, RunsTasksInTheOrderOfTheirDueTimes) {
    hold();
    addNote(milliseconds(60), "third");
    addNote(milliseconds(20), "first");
    addNote(milliseconds(40), "second");
    gate.open();
    EXPECT_EQ(journal.await(3), (Notes{"first", "second", "third"}));
}

TEST_F(TheTimer, RunsTasksWithEqualDelaysInTheOrderInWhichTheyWereAdded) {
    hold();
    Notes expected;
    for (int i = 0; i < 1000; ++i) {
        expected.push_back(std::to_string(i));
        addNote(milliseconds(5), expected.back());
    }
    gate.open();
    EXPECT_EQ(journal.await(1000), expected);
}

TEST_F(TheTimer, TakesEveryNegativeDelayForNow) {
    hold();
    addNote(milliseconds::zero(), "zero");
    addNote(milliseconds(-5000), "five seconds ago");
    addNote(milliseconds::min(), "ages ago");
    addNote(milliseconds(-1), "just now");
    gate.open();
    EXPECT_EQ(journal.await(4), (Notes{"zero", "five seconds ago", "ages ago", "just now"}));
}

TEST_F(TheTimer, RunsNoTaskBeforeItsDelayHasPassed) {
    Journal<Clock::time_point> ran;
    timer.start("ORVX_Timer");
    const auto added = Clock::now();
    timer.addTask(milliseconds(30), [&] { ran.write(Clock::now()); });
    const auto times = ran.await(1);
    ASSERT_EQ(times.size(), 1u);
    EXPECT_GE(times[0] - added, milliseconds(30));
}

TEST_F(TheTimer, RunsATaskOnce) {
    timer.start("ORVX_Timer");
    addNote(milliseconds::zero(), "once");
    addNote(milliseconds(20), "later");
    EXPECT_EQ(journal.await(2), (Notes{"once", "later"}));
}

TEST_F(TheTimer, RunsOthersWhileTasksWithTheLargestDelayArePending) {
    timer.start("ORVX_Timer");
    addNote(milliseconds::max(), "never");
    addNote(milliseconds::max() - milliseconds(1), "never");
    addNote(milliseconds(1), "soon");
    EXPECT_EQ(journal.await(1), Notes{"soon"});
    addNote(milliseconds(1), "soon again");
    EXPECT_EQ(journal.await(2), (Notes{"soon", "soon again"}));
}

TEST_F(TheTimer, SleepsWhileTheNextTaskIsFarAway) {
    const auto processorTime = [] {
        timespec used{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    };
    Journal<std::chrono::nanoseconds> used;
    timer.start("ORVX_Timer");
    timer.addTask(milliseconds::max(), test::nothing);
    timer.addTask(milliseconds::zero(), [&] { used.write(processorTime()); });
    timer.addTask(milliseconds(300), [&] { used.write(processorTime()); });
    const auto times = used.await(2);
    ASSERT_EQ(times.size(), 2u);
    EXPECT_LT(times[1] - times[0], milliseconds(150));
}

TEST_F(TheTimer, IsWokenByATaskThatIsDueEarlierThanTheOneItWaitsFor) {
    Event waiting;
    timer.start("ORVX_Timer");
    addNote(std::chrono::hours(1), "late");
    timer.addTask(milliseconds::zero(), [&] { waiting.set(); });
    ASSERT_TRUE(waiting.happens());
    addNote(milliseconds(10), "early");
    EXPECT_EQ(journal.await(1), Notes{"early"});
}

TEST_F(TheTimer, DropsTasksThatAreAddedWhileItIsStopped) {
    addNote(milliseconds::zero(), "before the start");
    timer.start("ORVX_Timer");
    timer.stop();
    timer.addTask(milliseconds::zero(),
                  test::watched(test::nothing, [&] { journal.write("dropped"); }));
    EXPECT_EQ(journal.notes(), Notes{"dropped"});
    timer.start("ORVX_Timer");
    addNote(milliseconds::zero(), "ran");
    EXPECT_EQ(journal.await(2), (Notes{"dropped", "ran"}));
}

TEST_F(TheTimer, DropsPendingTasksWhenItIsStopped) {
    timer.start("ORVX_Timer");
    timer.addTask(std::chrono::hours(1),
                  test::watched([&] { journal.write("ran"); }, [&] { journal.write("dropped"); }));
    timer.stop();
    EXPECT_EQ(journal.notes(), Notes{"dropped"});
}

TEST_F(TheTimer, DropsATaskThatTheRunningOneAddsAfterStoppingIt) {
    Event added;
    timer.start("ORVX_Timer");
    timer.addTask(milliseconds::zero(), [&] {
        timer.stop();
        timer.addTask(milliseconds::zero(),
                      test::watched(test::nothing, [&] { journal.write("dropped"); }));
        added.set();
    });
    ASSERT_TRUE(added.happens());
    EXPECT_EQ(journal.notes(), Notes{"dropped"});
}

TEST_F(TheTimer, RunsBetweenStartAndStop) {
    EXPECT_FALSE(timer.isRunning());
    timer.start("ORVX_Timer");
    EXPECT_TRUE(timer.isRunning());
    timer.stop();
    EXPECT_FALSE(timer.isRunning());
}

TEST_F(TheTimer, DoesNotRunAnyMoreInsideATaskThatHasStoppedIt) {
    timer.start("ORVX_Timer");
    timer.addTask(milliseconds::zero(), [&] {
        timer.stop();
        journal.write(timer.isRunning() ? "running" : "stopped");
    });
    EXPECT_EQ(journal.await(1), Notes{"stopped"});
}

TEST_F(TheTimer, DoesNotRunWhenItCannotBeStarted) {
    const test::ThreadsCannotBeMade fault;
    EXPECT_THROW(timer.start("ORVX_Timer"), std::system_error);
    EXPECT_FALSE(timer.isRunning());
}

/// The earliest and the latest due time of a task: its delay after a moment before it was added,
/// and after a moment afterwards.
struct Due {
    Clock::time_point earliest;
    Clock::time_point latest;
};

TEST_F(TheTimer, RunsAHundredThousandPendingTasksInTheOrderOfTheirDueTimes) {
    constexpr std::size_t count = 100'000;
    std::mt19937 random(1);
    std::uniform_int_distribution<milliseconds::rep> delays(0, 1000);
    std::vector<Due> dues(count);
    std::vector<std::size_t> order;
    Journal<std::size_t> thousands;
    hold();
    for (std::size_t i = 0; i < count; ++i) {
        const milliseconds delay(delays(random));
        dues[i].earliest = Clock::now() + delay;
        timer.addTask(delay, [&, i] {
            order.push_back(i);
            if (order.size() % 1000 == 0) {
                thousands.write(order.size());
            }
        });
        dues[i].latest = Clock::now() + delay;
    }
    gate.open();
    EXPECT_EQ(thousands.await(count / 1000).size(), count / 1000);
    timer.stop();
    ASSERT_EQ(order.size(), count);
    auto reached = Clock::time_point::min();
    for (const auto task : order) {
        reached = std::max(reached, dues[task].earliest);
        EXPECT_LE(reached, dues[task].latest) << "task " << task;
    }
}

}  // namespace
}  // namespace orvx::utility
