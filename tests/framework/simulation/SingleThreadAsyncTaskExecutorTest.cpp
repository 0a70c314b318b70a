// The executor's contract, kept by its simulated definition.

#include "AtEnd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orvx/simulation/World.h>
#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>

#include <optional>
#include <stdexcept>

namespace orvx::simulation {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using utility::SingleThreadAsyncTaskExecutor;

class TheSimulatedExecutor : public ::testing::Test {
  protected:
    SingleThreadAsyncTaskExecutor::Task note(const std::string& what) {
        return [this, what] { ran.push_back(what); };
    }
    void restart() {
        executor->start();
        world.settle();
    }

    World world;
    std::vector<std::string> ran;
    std::vector<std::string> errors;
    std::optional<SingleThreadAsyncTaskExecutor> executor{std::in_place, "E",
                                                          [this](const std::string& error) {
                                                              EXPECT_EQ(world.currentThread(), "E");
                                                              errors.push_back(error);
                                                          }};
};

TEST_F(TheSimulatedExecutor, RunsTasksInTheOrderInWhichTheyWereAdded) {
    executor->start();
    executor->add(note("a"));
    executor->add(note("b"));
    EXPECT_THAT(ran, IsEmpty()) << "never before add() returns";
    world.settle();
    executor->add(note("c"));
    world.settle();
    EXPECT_THAT(ran, ElementsAre("a", "b", "c"));
}

TEST_F(TheSimulatedExecutor, RunsAListInItsOrder) {
    executor->start();
    SingleThreadAsyncTaskExecutor::Tasks tasks{note("a"), note("b")};
    executor->add(std::move(tasks));
    world.settle();
    EXPECT_THAT(ran, ElementsAre("a", "b"));
}

TEST_F(TheSimulatedExecutor, KeepsTasksThatWereAddedBeforeItStarted) {
    executor->add(note("a"));
    world.settle();
    EXPECT_THAT(ran, IsEmpty());
    restart();
    EXPECT_THAT(ran, ElementsAre("a"));
}

TEST_F(TheSimulatedExecutor, KeepsTasksThatWereAddedAfterItWasStopped) {
    executor->start();
    executor->stopAndClear();
    executor->add(note("a"));
    executor->stopAndClear();
    world.settle();
    EXPECT_THAT(ran, IsEmpty());
    restart();
    EXPECT_THAT(ran, ElementsAre("a"));
}

TEST_F(TheSimulatedExecutor, RunsWhatIsAddedFromInsideATask) {
    executor->add([this] { executor->add(note("a")); });
    restart();
    EXPECT_THAT(ran, ElementsAre("a"));
}

TEST_F(TheSimulatedExecutor, DropsQueuedTasksWhenItIsStopped) {
    executor->start();
    int dropped = 0;
    for (int i = 0; i < 3; ++i) {
        executor->add([this, end = atEnd([&] { ++dropped; })] { ran.push_back("never"); });
    }
    executor->stopAndClear();
    EXPECT_EQ(dropped, 3);
    EXPECT_EQ(world.queuedTasks(), 0U);
    restart();
    EXPECT_THAT(ran, IsEmpty());
}

TEST_F(TheSimulatedExecutor, KeepsWhatTheDestructorsOfDroppedTasksAdd) {
    executor->start();
    for (int i = 0; i < 3; ++i) {
        executor->add([end = atEnd([this] { executor->add(note("a")); })] {});
    }
    executor->stopAndClear();
    EXPECT_EQ(world.queuedTasks(), 3U);
    restart();
    EXPECT_THAT(ran, ElementsAre("a", "a", "a"));
}

TEST_F(TheSimulatedExecutor, TakesNothingFromTheDestructorsOfTasksThatItsEndDrops) {
    for (int i = 0; i < 3; ++i) {
        executor->add([end = atEnd([this, last = &*executor] { last->add(note("never")); })] {});
    }
    executor.reset();
    EXPECT_EQ(world.queuedTasks(), 0U);
    world.settle();
    EXPECT_THAT(ran, IsEmpty());
}

TEST_F(TheSimulatedExecutor, DropsQueuedTasksWithItself) {
    executor->start();
    executor->add(note("never"));
    executor.reset();
    EXPECT_EQ(world.queuedTasks(), 0U);
    world.settle();
    EXPECT_THAT(ran, IsEmpty());
}

TEST_F(TheSimulatedExecutor, PassesAnExceptionToTheErrorHandlerAndRunsTheNextTask) {
    executor->add([] { throw std::runtime_error("it broke"); });
    executor->add([] { throw 1; });
    executor->add(note("next"));
    restart();
    EXPECT_THAT(errors, ElementsAre("it broke", "unknown exception"));
    EXPECT_THAT(ran, ElementsAre("next"));
}

TEST_F(TheSimulatedExecutor, NeedsNoErrorHandler) {
    executor.emplace("E", nullptr);
    executor->add([] { throw std::runtime_error("it broke"); });
    executor->add(note("next"));
    restart();
    EXPECT_THAT(ran, ElementsAre("next"));
}

TEST_F(TheSimulatedExecutor, DropsWhatTheErrorHandlerThrows) {
    executor.emplace("E", [](const std::string&) { throw 1; });
    executor->add([] { throw std::runtime_error("it broke"); });
    executor->add(note("next"));
    restart();
    EXPECT_THAT(ran, ElementsAre("next"));
}

TEST_F(TheSimulatedExecutor, EndsWithTheTaskThatStopsIt) {
    executor->add([this] {
        executor->stopAndClear();
        ran.push_back("last");
    });
    executor->add(note("never"));
    restart();
    restart();
    EXPECT_THAT(ran, ElementsAre("last"));
}

TEST_F(TheSimulatedExecutor, RunsTasksAfterATaskHasStoppedAndStartedIt) {
    executor->add([this] {
        executor->stopAndClear();
        executor->add(note("next"));
        executor->start();
        ran.push_back("first");
    });
    restart();
    EXPECT_THAT(ran, ElementsAre("first", "next"));
}

TEST_F(TheSimulatedExecutor, MayBeDestroyedByItsTask) {
    executor->add([this] {
        executor.reset();
        ran.push_back("last");
    });
    executor->add(note("never"));
    restart();
    EXPECT_THAT(ran, ElementsAre("last"));
    EXPECT_EQ(world.currentThread(), "");
}

TEST_F(TheSimulatedExecutor, MayBeDestroyedByTheDestructorOfItsTask) {
    executor->add([end = atEnd([this] { executor.reset(); })] {});
    executor->add(note("never"));
    restart();
    EXPECT_THAT(ran, IsEmpty());
}

TEST_F(TheSimulatedExecutor, MayBeDestroyedByTheDestructorOfATaskThatItDrops) {
    auto owner = std::make_shared<SingleThreadAsyncTaskExecutor>("Owned", nullptr);
    SingleThreadAsyncTaskExecutor& owned = *owner;
    const std::weak_ptr<SingleThreadAsyncTaskExecutor> alive = owner;
    owned.start();
    owned.add([keep = std::move(owner)] {});
    owned.stopAndClear();
    EXPECT_TRUE(alive.expired());
}

TEST_F(TheSimulatedExecutor, TakesTurnsWithOthersInTheOrderOfAdding) {
    SingleThreadAsyncTaskExecutor other("Other", nullptr);
    executor->start();
    other.start();
    executor->add(note("a"));
    other.add(note("b"));
    executor->add(note("c"));
    other.add(note("d"));
    world.settle();
    EXPECT_THAT(ran, ElementsAre("a", "b", "c", "d"));
}

}  // namespace
}  // namespace orvx::simulation
