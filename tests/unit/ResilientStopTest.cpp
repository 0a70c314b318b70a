// With resilience every callback is called exactly once, in whatever state the client is stopped,
// and the client continues after a start.
#include "LockProbe.h"
#include "ResilientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AStoppedClient : public ResilientTest {
  protected:
    AStoppedClient() { context.setRegistrationListener({}); }

    static Outcome stopped(const std::string& label) {
        return {label, "ERROR", "DELEGATOR_NOT_INITIATED", -1};
    }
};

TEST_F(AStoppedClient, AnswersARegistrationThatWaitsAndDeletesItsEntryAfterTheStart) {
    start();
    registerService("echo");
    next("PUT");
    client().deinit();
    EXPECT_THAT(takeOutcomes(), ElementsAre(stopped("echo")));
    client().init();
    expect("PUT", "/echo", 200, "abc");
    expect("DELETE", "/abc", 200);
    EXPECT_THAT(takeOutcomes(), IsEmpty());
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
}

TEST_F(AStoppedClient, AnswersAWithdrawalThatWaitsAndDoesItAfterTheStart) {
    start();
    registered("echo", "abc")(record("withdraw"));
    takeOutcomes();
    next("DELETE");
    client().deinit();
    EXPECT_THAT(takeOutcomes(), ElementsAre(stopped("withdraw")));
    client().init();
    expect("DELETE", "/abc", 404);
    EXPECT_THAT(takeOutcomes(), IsEmpty());
}

TEST_F(AStoppedClient, DeliversOutcomesThatWereDecidedBefore) {
    start();
    registerService("echo");
    next("PUT").answer(201, location("/abc"));
    client().deinit();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
}

TEST_F(AStoppedClient, LooksAtItsEntriesAgainAfterTheStart) {
    start();
    registered("echo", "abc");
    client().deinit();
    world.advance(std::chrono::hours(1));
    EXPECT_EQ(world.requestsToTake(), 0U);
    client().init();
    EXPECT_LE(expect("HEAD", "/abc", 404), Seconds(1));
    expect("PUT", "/echo", 201, "def");
    EXPECT_EQ(state(), "announced");
}

TEST_F(AStoppedClient, AnswersCallsOnceAtTheNextStartOrItsEnd) {
    start();
    const Handle handle = registered("echo", "abc");
    takeOutcomes();
    client().deinit();
    handle(record("withdraw"));
    registerService("late");
    EXPECT_THAT(takeOutcomes(), IsEmpty()) << "never on the thread that asks";
    client().init();
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(stopped("withdraw"), stopped("late")));
    client().deinit();
    registerService("later");
    context.deinit();
    EXPECT_THAT(takeOutcomes(), ElementsAre(stopped("later")));
}

TEST_F(AStoppedClient, AnswersEverybodyWhenStoppedInsideACallback) {
    start();
    registerService("waiting");
    next("PUT");
    client().registerServiceAtRegistry(registry, service("echo"),
                                       [this](const auto&) { context.deinit(); });
    next("PUT").answer(201, location("/abc"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(stopped("waiting")));
    EXPECT_FALSE(context.isInitiated());
}

TEST_F(AStoppedClient, EndsAlthoughACallbackRegistersAgain) {
    start();
    int calls = 0;
    auto& stopped = client();
    IOrvServiceRegistryClient::ResponseCallback again = [&](const OrvRegistrationResponse&) {
        if (++calls < 100) {
            stopped.registerServiceAtRegistry(registry, service("echo"), again);
        }
    };
    client().registerServiceAtRegistry(registry, service("echo"), again);
    next("PUT");
    client().deinit();
    EXPECT_EQ(calls, 1) << "the second registration is answered after the start";
    client().init();
    world.settle();
    EXPECT_EQ(calls, 2);
    context.deinit();
    EXPECT_EQ(calls, 4) << "by the stop, and by the destructor";
}

TEST_F(AStoppedClient, IsStillTheClientOfTheContextInCallbacksDuringItsEnd) {
    start();
    const IOrvServiceRegistryClient* const before = &client();
    client().registerServiceAtRegistry(
        registry, service("echo"), [this, before](const OrvRegistrationResponse&) {
            IOrvServiceRegistryClient* const ending = context.getServiceRegistryClient();
            ASSERT_EQ(ending, before);
            ending->registerServiceAtRegistry(registry, service("late"), record("late"));
        });
    next("PUT");
    context.deinit();
    EXPECT_THAT(takeOutcomes(), ElementsAre(stopped("late")));
}

TEST_F(AStoppedClient, MayBeEndedAgainInACallbackDuringItsEnd) {
    start();
    client().registerServiceAtRegistry(registry, service("echo"), [this](const auto& response) {
        outcomes.push_back(outcome("echo", response));
        context.deinit();
        EXPECT_FALSE(context.isInitiated());
    });
    next("PUT");
    context.deinit();
    EXPECT_THAT(takeOutcomes(), ElementsAre(stopped("echo")));
}

TEST_F(AStoppedClient, MayBeEndedAndStartedInACallbackDuringItsEnd) {
    start();
    client().registerServiceAtRegistry(registry, service("echo"), [this](const auto&) {
        context.deinit();
        context.init();
    });
    next("PUT");
    context.deinit();
    EXPECT_TRUE(context.isInitiated());
    EXPECT_NE(context.getServiceRegistryClient(), nullptr);
}

class TheLockRuleOfResilience : public ResilientTest {
  protected:
    TheLockRuleOfResilience() { context.setRegistrationListener({}); }
    LockProbe probe() { return LockProbe(client(), count); }
    void expectCalls(int calls) {
        world.settle();
        EXPECT_EQ(count->called, calls);
        EXPECT_EQ(count.use_count(), 1);
    }

    const std::shared_ptr<LockProbe::Count> count = std::make_shared<LockProbe::Count>();
};

TEST_F(TheLockRuleOfResilience, HoldsFromTheRegistrationToTheWithdrawal) {
    start();
    const auto remove = client().addServiceRegisterStatusListener(probe());
    const Handle handle = client().registerServiceAtRegistry(registry, service("echo"), probe());
    next("PUT").answer(201, location("/abc"));
    world.settle();
    expect("HEAD", "/abc", 404);
    expect("PUT", "/echo", 201, "def");
    handle(probe());
    handle(probe());
    expect("DELETE", "/def", 200);
    handle(probe());
    remove();
    expectCalls(1 + 4 + 3);
}

TEST_F(TheLockRuleOfResilience, HoldsForRefusalsTimeOutsAndStops) {
    context.setSyncCallUnregisterTimeout(Milliseconds(100));
    start();
    client().registerServiceAtRegistry(registry, service("echo"), probe());
    next("PUT").answer(400);
    const Handle handle = client().registerServiceAtRegistry(registry, service("time"), probe());
    handle(probe());
    world.advance(Milliseconds(100));
    handle(probe());
    client().registerServiceAtRegistry(registry, service("waiting"), probe());
    world.settle();
    client().deinit();
    expectCalls(5);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
