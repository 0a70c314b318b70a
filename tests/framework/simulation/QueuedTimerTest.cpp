// The timer's contract, kept by its simulated definition.

#include "AtEnd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orvx/simulation/World.h>
#include <orvx/utility/QueuedTimer.h>

#include <optional>
#include <stdexcept>

namespace orvx::simulation {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using utility::QueuedTimer;
using namespace std::chrono_literals;

class TheSimulatedTimer : public ::testing::Test {
  protected:
    TheSimulatedTimer() { timer->start("T"); }

    /// Records the tasks that ran, and their times.
    QueuedTimer::Task note(const std::string& what) {
        return [this, what] { ran.push_back(what + " at " + std::to_string(world.now().count())); };
    }

    World world;
    std::vector<std::string> ran;
    std::optional<QueuedTimer> timer{std::in_place};
};

TEST_F(TheSimulatedTimer, RunsEachTaskAtItsDueTime) {
    timer->addTask(30ms, note("c"));
    timer->addTask(10ms, note("a"));
    timer->addTask(20ms, note("b"));
    world.advance(9ms);
    EXPECT_THAT(ran, IsEmpty());
    world.advance(11ms);
    EXPECT_THAT(ran, ElementsAre("a at 10", "b at 20"));
    world.advance(1h);
    EXPECT_THAT(ran, ElementsAre("a at 10", "b at 20", "c at 30"));
}

TEST_F(TheSimulatedTimer, RunsTasksWithEqualDueTimesInTheOrderTheyWereAdded) {
    timer->addTask(10ms, note("a"));
    timer->addTask(10ms, note("b"));
    world.advance(4ms);
    timer->addTask(6ms, note("c"));
    world.advance(6ms);
    EXPECT_THAT(ran, ElementsAre("a at 10", "b at 10", "c at 10"));
}

TEST_F(TheSimulatedTimer, SharesOneOrderWithTheOtherTimers) {
    QueuedTimer other;
    other.start("Other");
    timer->addTask(10ms, note("a"));
    other.addTask(10ms, note("b"));
    timer->addTask(10ms, note("c"));
    other.addTask(5ms, note("d"));
    world.advance(10ms);
    EXPECT_THAT(ran, ElementsAre("d at 5", "a at 10", "b at 10", "c at 10"));
}

TEST_F(TheSimulatedTimer, RunsTasksThatAreAddedOnTheWay) {
    timer->addTask(10ms, [this] {
        timer->addTask(5ms, note("inside"));
        timer->addTask(11ms, note("beyond"));
    });
    world.advance(20ms);
    EXPECT_THAT(ran, ElementsAre("inside at 15"));
    EXPECT_EQ(world.now(), 20ms);
    world.advance(1ms);
    EXPECT_THAT(ran, ElementsAre("inside at 15", "beyond at 21"));
}

TEST_F(TheSimulatedTimer, TakesANegativeDelayForNow) {
    world.advance(100ms);
    timer->addTask(milliseconds::min(), note("a"));
    timer->addTask(0ms, note("b"));
    timer->addTask(-1ms, note("c"));
    EXPECT_THAT(ran, IsEmpty()) << "never inside addTask()";
    world.advance(0ms);
    EXPECT_THAT(ran, ElementsAre("a at 100", "b at 100", "c at 100"));
}

TEST_F(TheSimulatedTimer, TakesTheLargestDelayForNever) {
    world.advance(100ms);
    timer->addTask(milliseconds::max(), note("never"));
    world.advance(std::chrono::hours(24 * 365 * 1000));
    EXPECT_THAT(ran, IsEmpty());
}

TEST_F(TheSimulatedTimer, TellsWhenItsTasksFallDue) {
    timer->addTask(30ms, [] {});
    timer->addTask(10ms, [] {});
    timer->addTask(milliseconds::max(), [] {});
    world.advance(4ms);
    EXPECT_THAT(world.pendingDelays(), ElementsAre(6ms, 26ms, milliseconds::max() - 4ms));
}

TEST_F(TheSimulatedTimer, TellsTheDelaysExactlyAsTheyWereGiven) {
    timer->addTask(30ms, [] {});
    timer->addTask(-7ms, [] {});
    timer->addTask(milliseconds::max(), [] {});
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(30ms, -7ms, milliseconds::max()));
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
}

TEST_F(TheSimulatedTimer, DropsTasksThatAreAddedWhileItIsStopped) {
    timer->stop();
    EXPECT_FALSE(timer->isRunning());
    timer->addTask(1ms, note("never"));
    timer->start("T");
    EXPECT_TRUE(timer->isRunning());
    world.advance(1h);
    EXPECT_THAT(ran, IsEmpty());
}

TEST_F(TheSimulatedTimer, DropsPendingTasksWhenItIsStopped) {
    QueuedTimer other;
    other.start("Other");
    other.addTask(2ms, note("other"));
    int dropped = 0;
    for (int i = 0; i < 3; ++i) {
        timer->addTask(1ms, [end = atEnd([&] { ++dropped; })] { FAIL(); });
    }
    timer->stop();
    EXPECT_EQ(dropped, 3);
    EXPECT_THAT(world.pendingDelays(), ElementsAre(2ms));
    timer->start("T");
    world.advance(1h);
    EXPECT_THAT(ran, ElementsAre("other at 2"));
}

TEST_F(TheSimulatedTimer, TakesNothingFromTheDestructorsOfDroppedTasks) {
    for (int i = 0; i < 3; ++i) {
        timer->addTask(1ms, [end = atEnd([this] { timer->addTask(1ms, note("never")); })] {});
    }
    timer->stop();
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
}

TEST_F(TheSimulatedTimer, DropsATaskThatThrowsAndRunsTheNext) {
    timer->addTask(1ms, [] { throw std::runtime_error("it broke"); });
    timer->addTask(1ms, [] { throw 1; });
    timer->addTask(1ms, note("next"));
    world.advance(1ms);
    EXPECT_THAT(ran, ElementsAre("next at 1"));
}

TEST_F(TheSimulatedTimer, EndsWithTheTaskThatStopsIt) {
    timer->addTask(1ms, [this] {
        timer->stop();
        timer->addTask(0ms, note("never"));
        note("last")();
    });
    timer->addTask(1ms, note("never"));
    world.advance(1h);
    EXPECT_THAT(ran, ElementsAre("last at 1"));
}

TEST_F(TheSimulatedTimer, MayBeDestroyedByItsTask) {
    timer->addTask(1ms, [this] {
        timer.reset();
        note("last")();
    });
    timer->addTask(1ms, note("never"));
    world.advance(1h);
    EXPECT_THAT(ran, ElementsAre("last at 1"));
}

TEST_F(TheSimulatedTimer, MayBeDestroyedByTheDestructorOfATaskThatItDrops) {
    auto owner = std::make_shared<QueuedTimer>();
    QueuedTimer& owned = *owner;
    const std::weak_ptr<QueuedTimer> alive = owner;
    owned.start("Owned");
    owned.addTask(1ms, [keep = std::move(owner)] {});
    owned.stop();
    EXPECT_TRUE(alive.expired());
}

TEST_F(TheSimulatedTimer, RunsOverdueTasksAfterATaskThatTookItsTime) {
    timer->addTask(1ms, [this] {
        world.advance(10ms);
        note("slow")();
    });
    timer->addTask(5ms, note("late"));
    world.advance(2ms);
    EXPECT_THAT(ran, ElementsAre("slow at 11", "late at 11"));
    EXPECT_EQ(world.now(), 11ms);
}

TEST_F(TheSimulatedTimer, CopesWithAHundredThousandPendingTasks) {
    constexpr int count = 100'000;
    int executed = 0;
    for (int i = 0; i < count; ++i) {
        timer->addTask(milliseconds(i * 7919LL % count), [&executed] { ++executed; });
    }
    world.advance(milliseconds(count / 2 - 1));
    EXPECT_EQ(executed, count / 2);
    timer->stop();
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
}

}  // namespace
}  // namespace orvx::simulation
