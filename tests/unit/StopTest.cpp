// A stop in each phase of a registration, and the start after it: pending work is dropped
// permanently, and registrations are kept unchanged.
#include "ClientTest.h"
#include "States.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Stop : public ClientTest {
  protected:
    void SetUp() override {
        start();
        client().addServiceRegisterStatusListener(listen());
    }
    /// Nothing that was pending happens at or after the stop. Queued callbacks stay queued until
    /// the stop.
    void stopAndStartAgain() {
        takeOutcomes();
        takeNotifications();
        log->takeLines();
        const std::vector<std::uint64_t> ids = registrationIds();
        const std::uint32_t checkState = access().checkState();
        client().deinit();
        EXPECT_EQ(world.outstandingRequests(), 0U);
        EXPECT_THAT(world.pendingDelays(), IsEmpty());
        EXPECT_EQ(world.queuedTasks(), 0U);
        client().init();
        world.settle();
        world.advance(std::chrono::hours(1));
        world.settle();
        EXPECT_EQ(world.requestsToTake(), 0U);
        EXPECT_THAT(outcomes, IsEmpty());
        EXPECT_THAT(notifications, IsEmpty());
        EXPECT_THAT(log->takeLines(), IsEmpty());
        EXPECT_EQ(registrationIds(), ids);
        EXPECT_EQ(access().checkState(), checkState);
    }
    void expectNotFound(const Handle& withdraw) {
        withdraw(record("withdrawal"));
        world.settle();
        EXPECT_THAT(takeOutcomes(),
                    ElementsAre(Outcome{"withdrawal", "ERROR", "SERVICE_NOT_FOUND", -1}));
    }
    void expectWithdrawn(const Handle& withdraw) {
        withdraw(record("withdrawal"));
        next("DELETE").answer(200);
        world.settle();
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
        EXPECT_THAT(registrationIds(), IsEmpty());
    }
};

TEST_F(Stop, LeavesAServiceRegisteringWhoseFirstPutWasOutstanding) {
    const Handle withdraw = registerService("echo");
    simulation::Request put = next("PUT");
    stopAndStartAgain();
    put.answer(201, location("/abc"));
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(stateOf(1), State::Announcing);
    expectNotFound(withdraw);
}

TEST_F(Stop, LeavesAServiceRegisteringWhoseRetryWasPlanned) {
    const Handle withdraw = registerService("echo");
    next("PUT").answer(HttpResponse(CommunicationStatus::ConnectFailed));
    stopAndStartAgain();
    EXPECT_EQ(stateOf(1), State::Announcing);
    expectNotFound(withdraw);
}

TEST_F(Stop, LeavesAServiceRegisteredAndEndsItsCheck) {
    const Handle withdraw = registered("echo", "abc");
    stopAndStartAgain();
    EXPECT_EQ(stateOf(1), State::Announced);
    expectWithdrawn(withdraw);
}

TEST_F(Stop, LeavesAServiceRegisteredWhoseHeadWasOutstanding) {
    const Handle withdraw = registered("echo", "abc");
    simulation::Request head = dueHead();
    stopAndStartAgain();
    EXPECT_EQ(access().checkState(), check::pending);
    head.answer(404);
    EXPECT_EQ(stateOf(1), State::Announced);
    expectWithdrawn(withdraw);
}

TEST_F(Stop, BetweenATimeOutAndItsLateAnswerHarmsNoLaterCheck) {
    registered("echo", "abc");
    dueHead();
    world.advance(Seconds(3));
    stopAndStartAgain();
    EXPECT_EQ(access().checkState(), check::timeout);
    registered("time", "def");
    forgetThePast();
    dueHead().answer(404);
    EXPECT_EQ(next("PUT").path(), "/time");
}

TEST_F(Stop, LeavesALostServiceLostWhosePutWasOutstanding) {
    const Handle withdraw = registered("echo", "abc");
    dueHead().answer(404);
    simulation::Request put = next("PUT");
    world.settle();
    stopAndStartAgain();
    put.answer(201, location("/def"));
    EXPECT_EQ(stateOf(1), State::Lost);
    expectNotFound(withdraw);
}

TEST_F(Stop, LeavesALostServiceLostWhoseNextAttemptWasPlanned) {
    const Handle withdraw = registered("echo", "abc");
    dueHead().answer(404);
    next("PUT").answer(500);
    world.settle();
    stopAndStartAgain();
    EXPECT_EQ(stateOf(1), State::Lost);
    expectNotFound(withdraw);
}

TEST_F(Stop, LeavesAServiceBeingWithdrawnWhoseDeleteWasOutstanding) {
    const Handle withdraw = registered("echo", "abc");
    withdraw(record("first"));
    simulation::Request request = next("DELETE");
    stopAndStartAgain();
    request.answer(200);
    EXPECT_EQ(stateOf(1), State::Withdrawing);
    withdraw(record("second"));
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty()) << "it only waits";
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_EQ(access().copyOf(1).unregisterCallbacks, 2U);
}

TEST_F(Stop, DropsTheOutcomeOfAWithdrawalThatIsQueued) {
    const Handle withdraw = registered("echo", "abc");
    withdraw(record("withdrawal"));
    next("DELETE").answer(200);
    stopAndStartAgain();
    EXPECT_THAT(registrationIds(), IsEmpty());
}

TEST_F(Stop, FromInsideTheListenerDropsTheTasksQueuedAfterIt) {
    client().addServiceRegisterStatusListener([this](const auto&, bool) { client().deinit(); });
    registerService("echo");
    next("PUT").answer(201, location("/abc"));
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
    client().init();
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(stateOf(1), State::Announced);
}

TEST_F(Stop, KeepsTheListener) {
    stopAndStartAgain();
    registered("echo", "abc");
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "abc", true}));
}

TEST_F(Stop, AllowsTheListenerToBeSetAndRemoved) {
    client().deinit();
    const auto remove = client().addServiceRegisterStatusListener(listen());
    client().init();
    registered("echo", "abc");
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "abc", true}));
    client().deinit();
    remove();
    client().init();
    registered("time", "def");
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(Stop, DropsTheRequestsOfItsThreadsWithoutALogLine) {
    registered("echo", "abc");
    const auto sent = request(1);
    forgetThePast();
    world.takeAddedDelays();
    client().deinit();
    access().sendPut(1, sent);
    access().sendHead(1, sent);
    access().sendDelete(1, sent);
    access().sendPut(7, sent);
    access().sendHead(7, sent);
    access().sendDelete(7, sent);
    EXPECT_EQ(world.queuedTasks(), 0U);
    EXPECT_EQ(stateOf(1), State::Announced);
    client().init();
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
    EXPECT_THAT(log->takeLines(), IsEmpty());
    EXPECT_EQ(access().checkState(), check::idle);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
