// Start, stop and end of the client, and the state that is kept across a stop.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using simulation::World;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

class ClientLifecycle : public ClientTest {
  protected:
    void failAt(World::Step step) {
        world.setHook([step](World::Step reached) {
            if (reached == step) {
                throw std::runtime_error("cannot start");
            }
        });
    }
};

TEST_F(ClientLifecycle, StartsNetworkThenCallbacksThenTimer) {
    std::vector<World::Step> steps;
    world.setHook([&](World::Step step) { steps.push_back(step); });
    start();
    EXPECT_THAT(steps, ElementsAre(World::Step::InitCommunication, World::Step::StartExecutor,
                                   World::Step::StartTimer));
    steps.clear();
    client().init();
    EXPECT_THAT(steps, IsEmpty());
}

TEST_F(ClientLifecycle, CountsRequestIdsFromOneAndOnAcrossStops) {
    start();
    registerService("first");
    registerService("second");
    client().deinit();
    client().init();
    registerService("third");
    EXPECT_THAT(registrationIds(), ElementsAre(1, 2, 3));
}

TEST_F(ClientLifecycle, NeverUsesAnIdTwice) {
    start();
    registerService("first");
    next("PUT").answer(400);
    registerService("second");
    EXPECT_THAT(registrationIds(), ElementsAre(2));
}

TEST_F(ClientLifecycle, DropsQueuedCallbacksAtItsStop) {
    start();
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> watched = owned;
    client().registerServiceAtRegistry(registry, service("echo"),
                                       [callback = record("echo"), owned = std::move(owned)](
                                           const auto& response) { callback(response); });
    client().addServiceRegisterStatusListener(listen());
    next("PUT").answer(201, location("/abc"));
    EXPECT_EQ(world.queuedTasks(), 2U);
    client().deinit();
    EXPECT_EQ(world.queuedTasks(), 0U);
    EXPECT_TRUE(watched.expired());
    client().init();
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(ClientLifecycle, DropsOutstandingRequestsAndPendingTasksAtItsStop) {
    start();
    registered("first", "abc");
    registerService("second");
    takeOutcomes();
    simulation::Request put = next("PUT");
    client().deinit();
    EXPECT_EQ(world.outstandingRequests(), 0U);
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
    put.answer(201, location("/def"));
    client().init();
    world.advance(1h);
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(stateOf(2), State::Announcing);
}

TEST_F(ClientLifecycle, KeepsRegistrationsAcrossAStopAndCanWithdrawThem) {
    start();
    const Handle handle = registered("echo", "abc");
    client().addServiceRegisterStatusListener(listen());
    takeOutcomes();
    client().deinit();
    EXPECT_THAT(registrationIds(), ElementsAre(1));
    EXPECT_EQ(stateOf(1), State::Announced);
    EXPECT_EQ(world.requestsToTake(), 0U) << "nothing is withdrawn";
    client().init();
    handle(record("withdrawal"));
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "abc", false}));
}

TEST_F(ClientLifecycle, DropsRegistrationsAtItsEndWithoutWithdrawingThem) {
    start();
    registered("echo", "abc");
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> watched = owned;
    client().registerServiceAtRegistry(registry, service("time"),
                                       [owned = std::move(owned)](const auto&) {});
    next("PUT");
    EXPECT_FALSE(watched.expired());
    context.deinit();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(ClientLifecycle, KeepsAnswersOfAStoppedClientForTheNextInit) {
    start();
    const Handle handle = registered("echo", "abc");
    takeOutcomes();
    client().deinit();
    handle(record("withdrawal"));
    registerService("late");
    client().deinit();
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(world.queuedTasks(), 2U) << "the second stop does nothing";
    client().init();
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"withdrawal", "ERROR", "DELEGATOR_NOT_INITIATED", -1},
                            Outcome{"late", "ERROR", "DELEGATOR_NOT_INITIATED", -1}));
    EXPECT_THAT(log->takeLines(), IsEmpty());
    EXPECT_EQ(stateOf(1), State::Announced);
}

TEST_F(ClientLifecycle, DropsAnswersOfAStoppedClientAtItsEnd) {
    start();
    client().deinit();
    auto owned = std::make_shared<int>();
    const std::weak_ptr<int> watched = owned;
    client().registerServiceAtRegistry(registry, service("echo"),
                                       [callback = record("echo"), owned = std::move(owned)](
                                           const auto& response) { callback(response); });
    EXPECT_FALSE(watched.expired());
    context.deinit();
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(world.queuedTasks(), 0U);
    EXPECT_THAT(outcomes, IsEmpty());
}

TEST_F(ClientLifecycle, WorksAgainAfterEachStop) {
    start();
    for (const std::string uuid : {"a", "b", "c"}) {
        registered("echo", uuid);
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
        client().deinit();
        client().init();
    }
}

TEST_F(ClientLifecycle, CannotBeginWithoutNetworkOrTimerAndCanLater) {
    for (const World::Step step : {World::Step::InitCommunication, World::Step::StartTimer}) {
        failAt(step);
        EXPECT_THROW(start(), std::runtime_error);
        EXPECT_FALSE(context.isInitiated());
        EXPECT_EQ(world.queuedTasks(), 0U);
        world.setHook({});
        start();
        registered("echo", "abc");
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
        context.deinit();
    }
}

TEST_F(ClientLifecycle, StaysStoppedWhenItCannotBeginAgain) {
    start();
    client().deinit();
    failAt(World::Step::StartTimer);
    EXPECT_THROW(client().init(), std::runtime_error);
    registerService("echo");
    EXPECT_EQ(world.requestsToTake(), 0U);
    world.settle();
    EXPECT_THAT(takeOutcomes(), IsEmpty()) << "the callback thread was left running";
    world.setHook({});
    client().init();
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"echo", "ERROR", "DELEGATOR_NOT_INITIATED", -1}));
}

using ClientLifecycleDeathTest = ClientLifecycle;

TEST_F(ClientLifecycleDeathTest, EndsTheProcessWhenTheCallbackThreadCannotBeStarted) {
    EXPECT_EXIT(
        {
            failAt(World::Step::StartExecutor);
            try {
                start();
            } catch (...) {
            }
        },
        ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace orvx::serviceregistryclient
