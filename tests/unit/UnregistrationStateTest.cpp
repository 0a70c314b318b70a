// Withdrawals that find no entry, or an entry that is being withdrawn already, and conditions that
// only the client's own threads can cause.
#include "ClientTest.h"
#include "States.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using ::testing::ElementsAre;
using testing::error;
using ::testing::IsEmpty;
using testing::LogLine;
using testing::warning;

const LogLine notRegisteredYet =
    warning("Trying to unregister a service that is not registered yet. Ignore. id=1");
const LogLine notRegisteredAnymore =
    warning("Trying to unregister a service that is not registered (anymore). Ignore. id=1");

class UnregistrationState : public ClientTest {
  protected:
    /// The withdrawal is refused immediately, because the registry holds no entry.
    void expectNotFound(const Handle& withdraw) {
        const State before = stateOf(1);
        takeOutcomes();
        log->takeLines();
        withdraw(record("withdrawal"));
        EXPECT_THAT(outcomes, IsEmpty()) << "never on the caller's thread";
        world.settle();
        EXPECT_THAT(takeOutcomes(),
                    ElementsAre(Outcome{"withdrawal", "ERROR", "SERVICE_NOT_FOUND", -1}));
        EXPECT_THAT(log->takeLines(), ElementsAre(notRegisteredYet));
        EXPECT_EQ(stateOf(1), before);
    }
    /// The entry at this path is withdrawn, and earlier refused withdrawals are not answered again.
    void expectWithdrawn(const Handle& withdraw, const std::string& path) {
        world.settle();
        takeOutcomes();
        withdraw(record("withdrawal"));
        simulation::Request request = next("DELETE");
        EXPECT_EQ(request.path(), path);
        request.answer(200);
        world.settle();
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
    }
};

TEST_F(UnregistrationState, FindsNothingWhileTheFirstPutIsOut) {
    start();
    const Handle withdraw = registerService("echo");
    simulation::Request put = next("PUT");
    expectNotFound(withdraw);
    EXPECT_EQ(world.requestsToTake(), 0U);
    put.answer(201, location("/abc"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
    expectWithdrawn(withdraw, "/abc");
}

TEST_F(UnregistrationState, FindsNothingWhileARetryIsPending) {
    start();
    const Handle withdraw = registerService("echo");
    next("PUT").answer(HttpResponse(CommunicationStatus::ConnectFailed));
    expectNotFound(withdraw);
    world.advance(Seconds(10));
    expectNotFound(withdraw);
    next("PUT").answer(201, location("/abc"));
    EXPECT_EQ(stateOf(1), State::Announced);
    expectWithdrawn(withdraw, "/abc");
}

TEST_F(UnregistrationState, FindsNothingDuringANewRegistrationOfALostService) {
    start();
    const Handle withdraw = registered("echo", "abc");
    world.advance(Seconds(10));
    next("HEAD").answer(404);
    expectNotFound(withdraw);
    next("PUT").answer(500);
    expectNotFound(withdraw);
    world.advance(Seconds(10));
    expectNotFound(withdraw);
    next("PUT").answer(201, location("/def"));
    expectWithdrawn(withdraw, "/def");
}

TEST_F(UnregistrationState, FindsNothingWhereTheRegistryGaveAnEmptyId) {
    start();
    client().addServiceRegisterStatusListener(listen());
    const Handle withdraw = registered("echo", "");
    EXPECT_TRUE(notifiedDescription->hasId());
    expectNotFound(withdraw);
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(UnregistrationState, FindsNothingAfterTheRegistrationFailed) {
    start();
    const Handle withdraw = registerService("echo");
    next("PUT").answer(400);
    world.settle();
    takeOutcomes();
    log->takeLines();
    withdraw(record("withdrawal"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", -1}));
    EXPECT_THAT(log->takeLines(), ElementsAre(notRegisteredAnymore));
}

TEST_F(UnregistrationState, OfTheRequestIdZeroIsNone) {
    start();
    access().unregister(0, record("withdrawal"));
    EXPECT_THAT(outcomes, IsEmpty());
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"withdrawal", "ERROR", "SERVICE_NOT_FOUND", -1}));
    EXPECT_THAT(log->takeLines(), ElementsAre(warning("could not unregister service")));
}

TEST_F(UnregistrationState, LogsWholeRequestIds) {
    start();
    access().unregister(12345678901234567890U, {});
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("Trying to unregister a service that is not registered "
                                    "(anymore). Ignore. id=12345678901234567890")));
}

TEST_F(UnregistrationState, OfAStoppedClientIsNotInitiated) {
    start();
    const Handle withdraw = registered("echo", "abc");
    client().deinit();
    takeOutcomes();
    withdraw(record("withdrawal"));
    access().unregister(0, record("zero"));
    EXPECT_EQ(stateOf(1), State::Announced);
    client().init();
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"withdrawal", "ERROR", "DELEGATOR_NOT_INITIATED", -1},
                            Outcome{"zero", "ERROR", "DELEGATOR_NOT_INITIATED", -1}));
    EXPECT_THAT(log->takeLines(), IsEmpty());
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(UnregistrationState, SendsTheDeleteInEveryStateExceptBeingWithdrawn) {
    for (const auto value :
         {state::registering, state::reregistering, state::registered, state::created}) {
        context.deinit();
        start();
        const Handle withdraw = registered("echo", "abc");
        access().setState(1, value);
        withdraw({});
        EXPECT_EQ(access().state(1), state::unregistering);
        next("DELETE");
    }
}

TEST_F(UnregistrationState, OfBeingWithdrawnOnlyWaits) {
    for (const auto value : {state::unregistering, state::alsoUnregistering}) {
        context.deinit();
        start();
        const Handle withdraw = registered("echo", "abc");
        access().setState(1, value);
        withdraw({});
        EXPECT_EQ(access().state(1), value);
        EXPECT_EQ(access().copyOf(1).unregisterCallbacks, 1U);
        EXPECT_EQ(world.requestsToTake(), 0U);
    }
}

TEST_F(UnregistrationState, OfAnIdThatIsGoneBeforeTheDeleteIsLogged) {
    start();
    registered("echo", "abc");
    takeOutcomes();
    access().sendDelete(7, request(1));
    world.settle();
    EXPECT_THAT(log->takeLines(), ElementsAre(warning("sendDeleteRequest called but id not found "
                                                      "in mapRegistryCallback. id=7")));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(outcomes, IsEmpty());
}

TEST_F(UnregistrationState, OfAnIdThatIsGoneBeforeTheRefusalIsLogged) {
    start();
    client().addServiceRegisterStatusListener(listen());
    access().handleDelete(7, answer(404, "", "who?"));
    world.settle();
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response to delete request was not ok, status=404"),
                            warning("error message from service registry=who?"),
                            error("handleDeleteResponse called but id not found in "
                                  "mapRegistryCallback. id=7")));
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(UnregistrationState, OfAnIdThatIsGoneBeforeTheConfirmationChangesNothing) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registered("echo", "abc");
    takeNotifications();
    takeOutcomes();
    access().handleDelete(7, answer(200));
    world.settle();
    EXPECT_THAT(log->takeLines(), IsEmpty());
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

TEST_F(UnregistrationState, IsRemovedWithItsWaitingCallbacks) {
    start();
    client().addServiceRegisterStatusListener(listen());
    const Handle withdraw = registered("echo", "abc");
    withdraw(record("first"));
    withdraw(record("second"));
    takeNotifications();
    ClientTestAccess::Callbacks callbacks(5);
    access().deleteEntries(1, callbacks);
    EXPECT_EQ(callbacks.size(), 2U) << "the earlier content of the list is discarded";
    EXPECT_THAT(registrationIds(), IsEmpty());
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "abc", false}));
}

TEST_F(UnregistrationState, IsRemovedWithoutWaitingCallbacks) {
    start();
    registered("echo", "abc");
    ClientTestAccess::Callbacks callbacks(5);
    access().deleteEntries(1, callbacks);
    EXPECT_THAT(callbacks, IsEmpty());
    EXPECT_THAT(registrationIds(), IsEmpty());
    EXPECT_EQ(world.queuedTasks(), 0U) << "there is no listener";
}

TEST_F(UnregistrationState, ThatIsGoneIsNotRemovedAgain) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registered("echo", "abc");
    ClientTestAccess::Callbacks callbacks(5);
    access().deleteEntries(7, callbacks);
    EXPECT_EQ(callbacks.size(), 5U);
    EXPECT_THAT(registrationIds(), ElementsAre(1));
    EXPECT_EQ(world.queuedTasks(), 0U);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
