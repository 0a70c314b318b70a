// With resilience a withdrawal may be requested at any time, and is repeated until it succeeds.
#include "ResilientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;

class AKeptWithdrawal : public ResilientTest {};

TEST_F(AKeptWithdrawal, DeletesTheEntry) {
    start();
    client().addServiceRegisterStatusListener(listen());
    const Handle handle = registered("echo", "abc");
    handle(record("withdraw"));
    EXPECT_EQ(state(), "withdrawing");
    expect("DELETE", "/abc", 200);
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201},
                                            Outcome{"withdraw", "OK", "NONE", 200}));
    EXPECT_THAT(takeNotifications(),
                ElementsAre(Notification{"echo", "abc", true}, Notification{"echo", "abc", false}));
    EXPECT_THAT(takeEvents(), ElementsAre(Event{"announced", "echo", "announced"},
                                          Event{"withdrawn", "echo", "withdrawing"}));
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(AKeptWithdrawal, IsDoneWithEachAnswerThatSaysThatNothingIsThere) {
    start();
    for (const int status : {200, 204, 404, 410}) {
        registered("echo", "abc")(record("withdraw"));
        expect("DELETE", "/abc", status);
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201},
                                                Outcome{"withdraw", "OK", "NONE", status}));
    }
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(AKeptWithdrawal, WaitsForTheFirstPutAndDeletesItsEntry) {
    start();
    const Handle handle = registerService("echo");
    handle(record("withdraw"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "ERROR", "OTHER", -1}));
    expect("PUT", "/echo", 201, "abc");
    expect("DELETE", "/abc", 200);
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdraw", "OK", "NONE", 200}));
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
}

TEST_F(AKeptWithdrawal, EndsTheRetriesOfARegistrationThatNeverArrived) {
    start();
    const Handle handle = registerService("echo");
    waitFor("PUT");
    fail(CommunicationStatus::ConnectFailed);
    handle(record("withdraw"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "ERROR", "OTHER", -1},
                                            Outcome{"withdraw", "OK", "NONE", -1}));
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(AKeptWithdrawal, PutsOnceMoreToLearnTheUuidWhereAnAnswerWasLost) {
    start();
    const Handle handle = registerService("echo");
    waitFor("PUT");
    fail(CommunicationStatus::ReceiveFailed);
    handle(record("withdraw"));
    expect("PUT", "/echo", 200, "abc");
    expect("DELETE", "/abc", 204);
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "ERROR", "OTHER", -1},
                                            Outcome{"withdraw", "OK", "NONE", 204}));
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(AKeptWithdrawal, IsTriedAgainByTheBackOffUntilTheEntryIsGone) {
    context.setSyncCallUnregisterTimeout(Milliseconds(0));
    start();
    registered("echo", "abc")(record("withdraw"));
    waitFor("DELETE");
    fail(CommunicationStatus::ReceiveFailed);
    Milliseconds step(500);
    for (const int status : {500, 503, 429, 408, 502, 501, 507}) {
        const Milliseconds delay = waitFor("DELETE");
        EXPECT_THAT(delay, AllOf(Ge(step / 2), Le(step)));
        answer(status);
        step = std::min(2 * step, Milliseconds(8000));
    }
    EXPECT_THAT(waitFor("DELETE"), AllOf(Ge(Milliseconds(4000)), Le(Milliseconds(8000))));
    takeOutcomes();
    answer(404);
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdraw", "OK", "NONE", 404}));
}

TEST_F(AKeptWithdrawal, IsAnsweredOnceWhenItTakesTooLongAndIsStillTried) {
    context.setSyncCallUnregisterTimeout(Milliseconds(2000));
    start();
    registered("echo", "abc")(record("withdraw"));
    takeOutcomes();
    waitFor("DELETE");
    world.advance(Milliseconds(1999));
    world.settle();
    EXPECT_THAT(takeOutcomes(), IsEmpty());
    world.advance(Milliseconds(1));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdraw", "ERROR", "TIMEOUT", -1}));
    fail(CommunicationStatus::TimedOut);
    expect("DELETE", "/abc", 200);
    EXPECT_THAT(takeOutcomes(), IsEmpty());
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
}

TEST_F(AKeptWithdrawal, ReportsThatTheRegistryAnswersAgain) {
    start();
    registered("echo", "abc")({});
    waitFor("DELETE");
    fail(CommunicationStatus::ConnectFailed);
    takeEvents();
    expect("DELETE", "/abc", 200);
    EXPECT_THAT(takeEvents(), ElementsAre(Event{"reachable", "echo", "withdrawing"},
                                          Event{"withdrawn", "echo", "withdrawing"}));
}

TEST_F(AKeptWithdrawal, LeavesNoDeadlineBehindWhenItIsAnswered) {
    context.enableCheck(false);
    context.setSyncCallUnregisterTimeout(std::chrono::hours(24));
    start();
    for (int i = 0; i < 20; ++i) {
        registered("echo", "abc")(record("withdraw"));
        expect("DELETE", "/abc", 200);
        world.advance(Seconds(1));
    }
    world.takeAddedDelays();
    world.advance(std::chrono::hours(25));
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty()) << "the timer is armed for a deadline";
}

TEST_F(AKeptWithdrawal, DoesNotWaitForTheAnswerToACheck) {
    start();
    const Handle handle = registered("echo", "abc");
    waitFor("HEAD");
    const auto head = last;
    handle(record("withdraw"));
    waitFor("DELETE");
    auto late = head;
    late->answer(404);
    answer(200);
    takeOutcomes();
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(AKeptWithdrawal, OfALostServiceWaitsForItsPutAndDeletesTheEntry) {
    start();
    const Handle handle = registered("echo", "abc");
    expect("HEAD", "/abc", 404);
    handle(record("withdraw"));
    expect("PUT", "/echo", 201, "def");
    expect("DELETE", "/def", 200);
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201},
                                            Outcome{"withdraw", "OK", "NONE", 200}));
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(AKeptWithdrawal, IsAnsweredAtOnceWhereItWillNeverBeAllowedAndIsTriedAtTheCheckInterval) {
    start();
    registered("echo", "abc")(record("withdraw"));
    expect("DELETE", "/abc", 403);
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"echo", "OK", "NONE", 201},
                            Outcome{"withdraw", "ERROR", "SERVICE_REGISTRY_ERROR", 403}));
    EXPECT_EQ(expect("DELETE", "/abc", 200), Seconds(10));
    EXPECT_THAT(takeOutcomes(), IsEmpty());
}

TEST_F(AKeptWithdrawal, OfAWithdrawnServiceSucceeds) {
    start();
    const Handle handle = registered("echo", "abc");
    handle(record("first"));
    handle(record("second"));
    expect("DELETE", "/abc", 200);
    handle(record("third"));
    world.settle();
    EXPECT_THAT(
        takeOutcomes(),
        ElementsAre(Outcome{"echo", "OK", "NONE", 201}, Outcome{"first", "OK", "NONE", 200},
                    Outcome{"second", "OK", "NONE", 200}, Outcome{"third", "OK", "NONE", -1}));
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(AKeptWithdrawal, IsFollowedByARegistrationThatWasAskedForMeanwhile) {
    start();
    registered("echo", "abc")(record("withdraw"));
    waitFor("DELETE");
    registerService("echo", "", "again");
    EXPECT_EQ(world.requestsToTake(), 0U) << "one request of an entry at a time";
    answer(200);
    expect("PUT", "/echo", 201, "def");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201},
                                            Outcome{"withdraw", "OK", "NONE", 200},
                                            Outcome{"again", "OK", "NONE", 201}));
    EXPECT_EQ(state(), "announced");
}

}  // namespace
}  // namespace orvx::serviceregistryclient
