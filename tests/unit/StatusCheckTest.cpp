// The periodic check of a registered service: its time, the effect of its answers, and its end.
#include "ClientTest.h"
#include "NoInfoLogger.h"
#include "States.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using ::testing::ElementsAre;
using testing::info;
using ::testing::IsEmpty;
using testing::warning;

class StatusCheck : public ClientTest {};

TEST_F(StatusCheck, IsNeverMadeWhenDisabled) {
    context.enableCheck(false);
    start();
    registered("echo", "abc");
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
    world.advance(std::chrono::hours(1));
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(StatusCheck, FollowsEachAnswerAfterTheInterval) {
    context.setCheckInterval(Seconds(30));
    start();
    registered("echo", "abc");
    for (int round = 0; round < 3; ++round) {
        EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(30000)));
        world.advance(Milliseconds(29999));
        EXPECT_EQ(world.requestsToTake(), 0U);
        world.advance(Milliseconds(1));
        simulation::Request head = next("HEAD");
        EXPECT_EQ(head.path(), "/abc");
        EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(3000)));
        world.advance(Milliseconds(200));
        head.answer(200);
    }
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(StatusCheck, AsksTheRegistryThatHoldsTheEntry) {
    start();
    registered("echo", "abc");
    const common::ServiceInfo other("other", "127.0.0.2", 8600);
    client().registerServiceAtRegistry(other, service("time"), record("time"));
    next("PUT").answer(201, location("/def"));
    world.advance(Seconds(10));
    EXPECT_EQ(next("HEAD").host(), "127.0.0.1");
    const simulation::Request head = next("HEAD");
    EXPECT_EQ(head.host(), "127.0.0.2");
    EXPECT_EQ(head.port(), 8600);
    EXPECT_EQ(head.path(), "/def");
    EXPECT_EQ(world.sessions().size(), 2U);
}

TEST_F(StatusCheck, RegistersALostServiceAgain) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registerService("echo");
    simulation::Request first = next("PUT");
    first.answer(201, location("/entries/abc"));
    world.settle();
    forgetThePast();

    dueHead().answer(404);
    EXPECT_EQ(stateOf(1), State::Lost);
    EXPECT_TRUE(notifiedDescription->hasId());
    EXPECT_EQ(uuidOf(1), "");
    EXPECT_EQ(notifiedDescription->getUri(), "");
    EXPECT_THAT(log->takeLines(), ElementsAre(info("automatic re-register with request: /echo")));
    EXPECT_THAT(notifications, IsEmpty()) << "never on the thread that brings the answer";
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "", false}));
    simulation::Request again = next("PUT");
    EXPECT_EQ(again.path(), first.path());
    EXPECT_EQ(again.body(), first.body());
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(3000))) << "no check meanwhile";

    again.answer(201, location("/entries/def"));
    world.settle();
    EXPECT_EQ(stateOf(1), State::Announced);
    EXPECT_EQ(notifiedDescription->getUri(), "/entries/def");
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "def", true}));
    EXPECT_THAT(takeOutcomes(), IsEmpty())
        << "the callback was called after the first success only";
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)));
    EXPECT_EQ(dueHead().path(), "/def");
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(StatusCheck, RegistersALostServiceAgainWithoutAListener) {
    start();
    registered("echo", "abc");
    dueHead().answer(404);
    EXPECT_EQ(world.queuedTasks(), 0U);
    EXPECT_EQ(next("PUT").path(), "/echo");
}

TEST_F(StatusCheck, DoesNotMentionTheNewRegistrationToALoggerThatWantsNoInfo) {
    const auto reticent = std::make_shared<testing::NoInfoLoggerFactory>();
    context.setLoggerFactory(reticent);
    start();
    registered("echo", "abc");
    dueHead().answer(404);
    next("PUT");
    EXPECT_THAT(reticent->takeLines(), IsEmpty());
}

TEST_F(StatusCheck, TakesNothingButNotFoundForALoss) {
    std::vector<HttpResponse> answers;
    for (const int status : {200, 201, 204, 301, 400, 401, 403, 405, 410, 500, 502, 503, 504}) {
        answers.push_back(answer(status));
    }
    for (const auto status : {CommunicationStatus::NoSession, CommunicationStatus::ResolveFailed,
                              CommunicationStatus::ConnectFailed, CommunicationStatus::TimedOut,
                              CommunicationStatus::Malformed, CommunicationStatus::Abandoned}) {
        answers.emplace_back(status);
    }
    start();
    client().addServiceRegisterStatusListener(listen());
    registered("echo", "abc");
    forgetThePast();
    for (const HttpResponse& answer : answers) {
        dueHead().answer(answer);
        EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(3000), Milliseconds(10000)));
    }
    dueHead().answer(200);
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_EQ(uuidOf(1), "abc");
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(StatusCheck, EndsForAServiceThatWasWithdrawn) {
    start();
    registered("echo", "abc")({});
    next("DELETE").answer(200);
    world.advance(Seconds(10));
    EXPECT_THAT(log->takeLines(), ElementsAre(warning("sendHeadRequest called but id not found in "
                                                      "mapRegistryCallback. id=1")));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
}

TEST_F(StatusCheck, EndsWhenItIsDueDuringAWithdrawalEvenIfThatIsRefused) {
    start();
    registered("echo", "abc")({});
    simulation::Request withdrawal = next("DELETE");
    world.advance(Seconds(10));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("sendHeadRequest called but service is not REGISTERED. id=1")));
    withdrawal.answer(500);
    EXPECT_EQ(stateOf(1), State::Announced);
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
}

TEST_F(StatusCheck, ContinuesAfterAWithdrawalThatWasRefusedInBetween) {
    start();
    registered("echo", "abc")({});
    next("DELETE").answer(500);
    EXPECT_EQ(dueHead().path(), "/abc");
}

TEST_F(StatusCheck, EndsInEveryStateButRegistered) {
    start();
    registered("echo", "abc");
    forgetThePast();
    for (const auto value : {state::registering, state::reregistering, state::unregistering,
                             state::alsoUnregistering, state::created}) {
        access().setState(1, value);
        access().sendHead(1, request(1));
        EXPECT_THAT(
            log->takeLines(),
            ElementsAre(warning("sendHeadRequest called but service is not REGISTERED. id=1")));
        EXPECT_EQ(access().state(1), value);
    }
    EXPECT_EQ(access().checkState(), check::idle);
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
}

TEST_F(StatusCheck, ChangesNothingWhenTheEntryIsNotFoundDuringItsWithdrawal) {
    for (const auto value : {state::unregistering, state::alsoUnregistering}) {
        context.deinit();
        start();
        client().addServiceRegisterStatusListener(listen());
        const Handle withdraw = registered("echo", "abc");
        simulation::Request head = dueHead();
        withdraw(record("withdrawal"));
        next("DELETE");
        access().setState(1, value);
        forgetThePast();

        head.answer(404);
        world.settle();
        EXPECT_EQ(access().state(1), value);
        EXPECT_EQ(uuidOf(1), "abc");
        EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
        EXPECT_EQ(world.requestsToTake(), 0U);
        EXPECT_THAT(notifications, IsEmpty());
        EXPECT_THAT(outcomes, IsEmpty());
        EXPECT_THAT(log->takeLines(), IsEmpty());
    }
}

TEST_F(StatusCheck, ContinuesWhenTheEntryIsFoundDuringItsWithdrawal) {
    start();
    const Handle withdraw = registered("echo", "abc");
    simulation::Request head = dueHead();
    withdraw({});
    world.takeAddedDelays();
    head.answer(200);
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)));
}

TEST_F(StatusCheck, EndsWithAnyAnswerForAServiceThatIsGone) {
    for (const int status : {200, 404, 500}) {
        context.deinit();
        start();
        client().addServiceRegisterStatusListener(listen());
        const Handle withdraw = registered("echo", "abc");
        simulation::Request head = dueHead();
        withdraw({});
        next("DELETE").answer(200);
        world.settle();
        forgetThePast();

        head.answer(status);
        world.settle();
        EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
        EXPECT_EQ(world.requestsToTake(), 0U);
        EXPECT_THAT(notifications, IsEmpty());
        EXPECT_THAT(log->takeLines(), IsEmpty());
    }
}

TEST_F(StatusCheck, OfALostServiceThatCannotBeRegisteredStartsAgainOnceItCan) {
    start();
    registered("echo", "abc");
    dueHead().answer(404);
    next("PUT").answer(500);
    world.advance(Seconds(10));
    next("PUT").answer(201, location("/def"));
    EXPECT_EQ(dueHead().path(), "/def");
}

TEST_F(StatusCheck, IsReportedWithTheTimeOfTheNextOne) {
    start();
    registered("echo", "abc");
    for (int round = 0; round < 2; ++round) {
        dueHead().answer(200);
        const RegistrationStatus status = statusOf(1);
        ASSERT_TRUE(status.nextAttempt);
        EXPECT_EQ(status.lastConfirmed, *status.nextAttempt - context.getCheckInterval());
    }
}

}  // namespace
}  // namespace orvx::serviceregistryclient
