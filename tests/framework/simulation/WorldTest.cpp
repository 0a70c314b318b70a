// The world: the number of worlds, the objects in it, the clock, the threads and the hook.

#include "AtEnd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orvx/communication/OrvClientCommunicationContext.h>
#include <orvx/simulation/World.h>
#include <orvx/utility/QueuedTimer.h>
#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>

#include <optional>
#include <stdexcept>

namespace orvx::simulation {
namespace {

using communication::OrvClientCommunicationContext;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using utility::QueuedTimer;
using utility::SingleThreadAsyncTaskExecutor;
using namespace std::chrono_literals;

template <typename Make>
std::string refusal(const Make& make) {
    try {
        make();
    } catch (const std::logic_error& error) {
        return error.what();
    }
    return "";
}

TEST(TheWorld, IsTheOnlyOne) {
    const World world;
    EXPECT_THAT(refusal([] { World second; }), HasSubstr("World already"));
    EXPECT_NO_THROW(QueuedTimer()) << "the refused one leaves the first as it was";
}

TEST(TheWorld, MayFollowAnother) {
    std::optional<World> world;
    world.emplace();
    world->advance(5ms);
    world.reset();
    world.emplace();
    EXPECT_EQ(world->now(), 0ms);
}

TEST(TheWorld, MustExistBeforeWhatLivesInIt) {
    const auto complaint = HasSubstr("make an orvx::simulation::World before");
    EXPECT_THAT(refusal([] { QueuedTimer timer; }), complaint);
    EXPECT_THAT(refusal([] { SingleThreadAsyncTaskExecutor executor("E", nullptr); }), complaint);
    EXPECT_THAT(refusal([] { OrvClientCommunicationContext context; }), complaint);
}

TEST(TheWorld, MayEndBeforeWhatLivesInIt) {
    auto world = std::make_unique<World>();
    QueuedTimer timer;
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    OrvClientCommunicationContext context;
    timer.start("T");
    executor.start();
    context.init();
    const auto session = context.getClientHttpFactory().createSession(
        "h", 1, {}, context.getHealthCheck(), context.getClientStatistics());
    session->sendHeadRequest("/", nullptr);
    world.reset();
    timer.addTask(1ms, [] {});
    executor.add([] {});
    session->sendHeadRequest("/", nullptr);
    session->abandon();
    timer.stop();
    executor.stopAndClear();
    context.deinit();
}

TEST(TheWorld, KeepsWhatBelongedToTheOneBeforeApart) {
    auto world = std::make_unique<World>();
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    executor.start();
    world.reset();
    world = std::make_unique<World>();
    bool ran = false;
    executor.add([&ran] { ran = true; });
    world->settle();
    EXPECT_FALSE(ran);
    EXPECT_EQ(world->queuedTasks(), 0U);
}

TEST(TheWorld, BeginsAtTimeZeroAndAdvancesByWhatItIsTold) {
    World world;
    EXPECT_EQ(world.now(), 0ms);
    world.advance(1500ms);
    world.advance(0ms);
    world.advance(2s);
    EXPECT_EQ(world.now(), 3500ms);
}

TEST(TheWorld, NeverGoesBackInTime) {
    World world;
    world.advance(10ms);
    world.advance(-4ms);
    EXPECT_EQ(world.now(), 10ms);
}

TEST(TheWorld, StopsItsClockAtTheLargestTime) {
    World world;
    world.advance(10ms);
    world.advance(std::chrono::milliseconds::max());
    EXPECT_EQ(world.now(), std::chrono::milliseconds::max());
}

TEST(TheWorld, RunsTimerTasksOnlyWhenItAdvances) {
    World world;
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    QueuedTimer timer;
    executor.start();
    timer.start("T");
    std::vector<std::string> ran;
    timer.addTask(0ms, [&] { ran.push_back("timer"); });
    executor.add([&] { ran.push_back("executor"); });
    EXPECT_THAT(ran, IsEmpty());
    world.advance(1ms);
    EXPECT_THAT(ran, ElementsAre("timer"));
    world.settle();
    EXPECT_THAT(ran, ElementsAre("timer", "executor"));
}

TEST(TheWorld, SettlesWhatExecutorsAndIoThreadsGiveOneAnother) {
    World world;
    SingleThreadAsyncTaskExecutor first("First", nullptr);
    SingleThreadAsyncTaskExecutor second("Second", nullptr);
    OrvClientCommunicationContext context;
    first.start();
    second.start();
    context.init();
    const auto session = context.getUnavailableSession();
    std::vector<std::string> ran;
    first.add([&] {
        ran.push_back(world.currentThread());
        session->sendHeadRequest("/", [&](const communication::HttpResponse&) {
            ran.push_back(world.currentThread());
            second.add([&] { ran.push_back(world.currentThread()); });
        });
    });
    world.settle();
    EXPECT_THAT(ran, ElementsAre("First", "ORVX_HttpIO", "Second"));
}

TEST(TheWorld, RunsIoThreadsOnlyWhenAskedForThat) {
    World world;
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    OrvClientCommunicationContext context;
    executor.start();
    context.init();
    bool answered = false;
    executor.add([] { FAIL() << "an executor's task"; });
    context.getUnavailableSession()->sendHeadRequest(
        "/", [&](const communication::HttpResponse&) { answered = true; });
    world.runIo();
    EXPECT_TRUE(answered);
    EXPECT_EQ(world.queuedTasks(), 1U);
}

TEST(TheWorld, CountsTheTasksOfRunningAndStoppedExecutors) {
    World world;
    SingleThreadAsyncTaskExecutor running("R", nullptr);
    SingleThreadAsyncTaskExecutor stopped("S", nullptr);
    running.start();
    running.add([] {});
    stopped.add([] {});
    stopped.add([] {});
    EXPECT_EQ(world.queuedTasks(), 3U);
    stopped.start();
    EXPECT_EQ(world.queuedTasks(), 3U);
    world.settle();
    EXPECT_EQ(world.queuedTasks(), 0U);
}

TEST(TheCurrentThread, HasNoNameOutsideTasks) {
    World world;
    EXPECT_EQ(world.currentThread(), "");
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    executor.start();
    executor.add([] { throw 1; });
    world.settle();
    EXPECT_EQ(world.currentThread(), "") << "after a task that threw";
}

TEST(TheCurrentThread, IsTheOneWhoseTaskRuns) {
    World world;
    SingleThreadAsyncTaskExecutor executor("ORVX_SRCBExec", nullptr);
    QueuedTimer timer;
    executor.start();
    timer.start("ORVX_SRRExec");
    std::vector<std::string> names;
    const auto note = [&] { names.push_back(world.currentThread()); };
    executor.add(note);
    timer.addTask(0ms, note);
    world.settle();
    world.advance(0ms);
    EXPECT_THAT(names, ElementsAre("ORVX_SRCBExec", "ORVX_SRRExec"));
}

TEST(TheCurrentThread, IsTheTasksOwnWhileTheTaskIsDestroyed) {
    World world;
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    executor.start();
    std::string name;
    executor.add([end = atEnd([&] { name = world.currentThread(); })] {});
    world.settle();
    EXPECT_EQ(name, "E");
}

TEST(TheCurrentThread, IsRestoredAfterNestedRuns) {
    World world;
    SingleThreadAsyncTaskExecutor outer("Outer", nullptr);
    SingleThreadAsyncTaskExecutor inner("Inner", nullptr);
    QueuedTimer timer;
    outer.start();
    inner.start();
    timer.start("Timer");
    std::vector<std::string> names;
    const auto note = [&] { names.push_back(world.currentThread()); };
    outer.add([&] {
        note();
        inner.add(note);
        timer.addTask(1ms, note);
        world.settle();
        note();
        world.advance(1ms);
        note();
    });
    world.settle();
    EXPECT_THAT(names, ElementsAre("Outer", "Inner", "Outer", "Timer", "Outer"));
}

TEST(TheCurrentThread, HasItsNameCutToFifteenBytes) {
    World world;
    SingleThreadAsyncTaskExecutor executor("ABCDEFGHIJKLMNOPQRST", nullptr);
    executor.start();
    std::string name;
    executor.add([&] { name = world.currentThread(); });
    world.settle();
    EXPECT_EQ(name, "ABCDEFGHIJKLMNO");
}

TEST(AThreadInsideATask, RunsNoOther) {
    World world;
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    executor.start();
    std::vector<std::string> steps;
    executor.add([&] {
        executor.add([&] { steps.push_back("second"); });
        world.settle();
        steps.push_back("first is through");
    });
    world.settle();
    EXPECT_THAT(steps, ElementsAre("first is through", "second"));
}

TEST(TheHook, IsCalledAtTheStartOfEachStep) {
    World world;
    std::vector<World::Step> steps;
    world.setHook([&](World::Step step) { steps.push_back(step); });
    QueuedTimer timer;
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    OrvClientCommunicationContext context;
    context.init();
    executor.start();
    timer.start("T");
    context.getClientHttpFactory().createSession("h", 1, {}, context.getHealthCheck(),
                                                 context.getClientStatistics());
    EXPECT_THAT(steps, ElementsAre(World::Step::InitCommunication, World::Step::StartExecutor,
                                   World::Step::StartTimer, World::Step::MakeSession));
}

TEST(TheHook, IsNotCalledForAStartThatDoesNothing) {
    World world;
    QueuedTimer timer;
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    OrvClientCommunicationContext context;
    context.init();
    executor.start();
    timer.start("T");
    world.setHook([](World::Step) { FAIL(); });
    context.init();
    executor.start();
    timer.start("T");
}

TEST(TheHook, StopsTheStepByThrowing) {
    World world;
    QueuedTimer timer;
    SingleThreadAsyncTaskExecutor executor("E", nullptr);
    OrvClientCommunicationContext context;
    world.setHook([](World::Step) { throw std::system_error(EAGAIN, std::system_category()); });
    EXPECT_THROW(timer.start("T"), std::system_error);
    EXPECT_THROW(executor.start(), std::system_error);
    EXPECT_THROW(context.init(), std::system_error);
    EXPECT_THROW(context.getClientHttpFactory().createSession("h", 1, {}, context.getHealthCheck(),
                                                              context.getClientStatistics()),
                 std::system_error);
    EXPECT_FALSE(timer.isRunning());
    EXPECT_THAT(world.sessions(), IsEmpty());

    executor.add([] { FAIL() << "it does not run"; });
    world.settle();
}

TEST(TheHook, MayReplaceItself) {
    World world;
    int calls = 0;
    world.setHook([&world, &calls](World::Step) {
        ++calls;
        world.setHook(nullptr);
        ++calls;
    });
    QueuedTimer timer;
    timer.start("T");
    timer.stop();
    timer.start("T");
    EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace orvx::simulation
