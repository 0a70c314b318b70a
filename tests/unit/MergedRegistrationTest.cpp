// Two request ids that lead to one record, because the registry answered both with the same uuid:
// their withdrawal, their checks, and the loss of the entry.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using testing::error;
using testing::info;
using ::testing::IsEmpty;
using testing::warning;

class MergedRegistration : public ClientTest {
  protected:
    /// Registers "first" (id 1) and "second" (id 2) with the same uuid, and drops all records.
    void merge() {
        start();
        client().addServiceRegisterStatusListener(listen());
        withdrawFirst = registered("first", "abc");
        world.advance(Seconds(1));
        withdrawSecond = registered("second", "abc");
        forgetThePast();
    }
    /// The check of the second registration is answered 404. Returns the PUT that follows.
    simulation::Request loseSecond() {
        world.advance(Seconds(10));
        next("HEAD").answer(200);  // the check of the first
        next("HEAD").answer(404);
        return next("PUT");
    }
    /// Registers "echo" with this port, answers with the uuid "abc", and returns the PUT's body.
    std::string registeredBody(long port) {
        const auto echo = service("echo");
        echo->setPort(port);
        client().registerServiceAtRegistry(registry, echo, {});
        simulation::Request put = next("PUT");
        put.answer(201, location("/abc"));
        return put.body();
    }

    Handle withdrawFirst;
    Handle withdrawSecond;
};

TEST_F(MergedRegistration, IsWithdrawnThroughEither) {
    for (const bool useFirst : {true, false}) {
        context.deinit();
        merge();
        (useFirst ? withdrawFirst : withdrawSecond)(record("withdrawal"));
        simulation::Request request = next("DELETE");
        EXPECT_EQ(request.path(), "/abc");
        request.answer(200);
        EXPECT_THAT(registrationIds(), IsEmpty());
        world.settle();
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
        EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"first", "abc", false}))
            << "one record, one notice";
    }
}

TEST_F(MergedRegistration, IsWithdrawnAlreadyForTheOtherOne) {
    merge();
    withdrawFirst({});
    next("DELETE").answer(200);
    forgetThePast();
    withdrawSecond(record("second"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"second", "OK", "NONE", -1}));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("Trying to unregister a service that is not registered "
                                    "(anymore). Ignore. id=2")));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(MergedRegistration, IsWithdrawnOnceForBoth) {
    merge();
    withdrawSecond(record("second"));
    withdrawFirst(record("first"));
    simulation::Request request = next("DELETE");
    EXPECT_EQ(world.requestsToTake(), 0U);
    request.answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"second", "OK", "NONE", 200},
                                            Outcome{"first", "OK", "NONE", 200}));
}

TEST_F(MergedRegistration, OfThreeIsWithdrawnWithOne) {
    merge();
    registered("third", "abc");
    registered("other", "def");
    EXPECT_THAT(registrationIds(), ElementsAre(1, 2, 3, 4));
    withdrawSecond({});
    next("DELETE").answer(200);
    EXPECT_THAT(registrationIds(), ElementsAre(4));
}

TEST_F(MergedRegistration, StaysForBothWhenItsWithdrawalIsRefused) {
    merge();
    withdrawSecond(record("second"));
    withdrawFirst(record("first"));
    next("DELETE").answer(409);
    world.settle();
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"second", "ERROR", "SERVICE_REGISTRY_ERROR", 409},
                            Outcome{"first", "ERROR", "SERVICE_REGISTRY_ERROR", 409}));
    EXPECT_EQ(nameOf(2), "first");
    EXPECT_EQ(stateOf(2), State::Announced);
}

TEST_F(MergedRegistration, JoinsARecordThatIsBeingWithdrawn) {
    start();
    client().addServiceRegisterStatusListener(listen());
    withdrawFirst = registered("first", "abc");
    withdrawFirst(record("withdrawal"));
    simulation::Request request = next("DELETE");
    forgetThePast();
    withdrawSecond = registered("second", "abc");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"second", "OK", "NONE", 201}));
    withdrawSecond(record("joined"));
    EXPECT_EQ(world.requestsToTake(), 0U);
    request.answer(200);
    world.settle();
    EXPECT_THAT(registrationIds(), IsEmpty());
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200},
                                            Outcome{"joined", "OK", "NONE", 200}));
    world.advance(Seconds(10));
    EXPECT_THAT(log->takeLines(), ElementsAre(warning("sendHeadRequest called but id not found in "
                                                      "mapRegistryCallback. id=1"),
                                              warning("sendHeadRequest called but id not found in "
                                                      "mapRegistryCallback. id=2")));
}

TEST_F(MergedRegistration, IsCheckedForEachByTheIdOfItsOwnDescription) {
    merge();
    world.advance(Seconds(10));
    EXPECT_EQ(next("HEAD").path(), "/abc");
    EXPECT_EQ(next("HEAD").path(), "/") << "the second one's was never given an id";
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(MergedRegistration, IsRegisteredAgainWithTheRequestOfTheOneThatIsLost) {
    merge();
    simulation::Request put = loseSecond();
    EXPECT_EQ(put.path(), "/second");
    EXPECT_EQ(stateOf(1), State::Lost) << "they share it";
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"second", "", false}));
    EXPECT_THAT(log->takeLines(), ElementsAre(info("automatic re-register with request: /second")));
    EXPECT_EQ(uuidOf(2), "abc") << "the record keeps its own description";

    put.answer(201, location("/def"));
    world.settle();
    EXPECT_EQ(stateOf(1), State::Announced);
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"second", "def", true}));
    EXPECT_THAT(outcomes, IsEmpty());
    world.advance(Seconds(10));
    EXPECT_EQ(next("HEAD").path(), "/abc");
    EXPECT_EQ(next("HEAD").path(), "/def");
    withdrawSecond({});
    EXPECT_EQ(next("DELETE").path(), "/abc");
}

TEST_F(MergedRegistration, BringsTheFirstDescriptionBackWhenTheRegistryStartsEmpty) {
    start();
    const std::string first = registeredBody(8080);
    const std::string changed = registeredBody(8081);
    EXPECT_NE(first, changed);
    world.advance(Seconds(10));
    next("HEAD").answer(404);  // the check of the entry
    next("HEAD").answer(200);  // the check of "/"
    simulation::Request put = next("PUT");
    EXPECT_EQ(put.path(), "/echo");
    EXPECT_EQ(put.body(), first);
    put.answer(201, location("/def"));
    world.advance(Seconds(10));
    EXPECT_EQ(world.requestsToTake(), 2U) << "two checks, and no PUT of the changed description";
}

TEST_F(MergedRegistration, LeavesTheOtherEntryWhenItIsWithdrawnAfterANewRegistration) {
    merge();
    loseSecond().answer(201, location("/def"));
    withdrawSecond(record("second"));
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(registrationIds(), IsEmpty());
    EXPECT_EQ(world.requestsToTake(), 0U) << "the entry /def is not withdrawn";
}

TEST_F(MergedRegistration, EndsTheChecksOfTheOtherOneThatAreDueDuringANewRegistration) {
    merge();
    loseSecond();
    world.advance(Seconds(5));
    forgetThePast();  // including the time-outs of the two checks
    world.advance(Seconds(5));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("sendHeadRequest called but service is not REGISTERED. id=1")));
}

TEST_F(MergedRegistration, IsWithdrawnThroughTheOtherOneDuringANewRegistration) {
    merge();
    simulation::Request put = loseSecond();
    forgetThePast();
    withdrawFirst(record("withdrawal"));
    EXPECT_EQ(stateOf(1), State::Withdrawing);
    simulation::Request request = next("DELETE");
    EXPECT_EQ(request.path(), "/abc");

    put.answer(201, location("/def"));
    world.settle();
    EXPECT_EQ(stateOf(1), State::Withdrawing) << "the answer asks for the withdrawal too";
    EXPECT_EQ(access().copyOf(1).unregisterCallbacks, 2U);
    EXPECT_EQ(world.requestsToTake(), 0U) << "a DELETE is outstanding already";
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_THAT(outcomes, IsEmpty());

    request.answer(200);
    world.settle();
    EXPECT_THAT(registrationIds(), IsEmpty());
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"first", "abc", false}));
}

TEST_F(MergedRegistration, IsGoneForBothWhenANewRegistrationFailsDuringItsWithdrawal) {
    merge();
    simulation::Request put = loseSecond();
    withdrawFirst(record("withdrawal"));
    simulation::Request request = next("DELETE");
    forgetThePast();
    put.answer(500);
    EXPECT_THAT(registrationIds(), IsEmpty());
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 500}));
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"first", "abc", false}));

    request.answer(200);
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(MergedRegistration, ThatIsGoneIgnoresASuccessfulPutOfTheOtherOne) {
    merge();
    simulation::Request put = loseSecond();
    world.settle();
    const auto second = notifiedDescription;
    withdrawFirst({});
    next("DELETE").answer(200);
    EXPECT_THAT(registrationIds(), IsEmpty());
    forgetThePast();
    put.answer(201, location("/def"));
    world.settle();
    EXPECT_THAT(
        log->takeLines(),
        ElementsAre(error("PUT response received but id not found in mapRegistryCallback. id=2")));
    EXPECT_THAT(registrationIds(), IsEmpty());
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
    EXPECT_EQ(second->getName(), "second");
    EXPECT_EQ(second->getId(), "");
}

TEST_F(MergedRegistration, ThatIsGoneIgnoresAFailedPutOfTheOtherOne) {
    merge();
    simulation::Request put = loseSecond();
    withdrawFirst({});
    next("DELETE").answer(200);
    forgetThePast();
    put.answer(400, "", "body");
    world.settle();
    EXPECT_THAT(log->takeLines(),
                ElementsAre(error("handlePutResponseError called but id not found in "
                                  "mapRegistryCallback. id=2")));
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
}

TEST_F(MergedRegistration, ThatIsGoneIsNotRegisteredAgainWhenARetryIsDue) {
    merge();
    loseSecond().answer(500);
    withdrawFirst({});
    next("DELETE").answer(200);
    world.advance(Seconds(5));
    forgetThePast();  // including the time-outs of the two checks
    world.advance(Seconds(5));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(
        log->takeLines(),
        ::testing::UnorderedElementsAre(
            warning("sendPutRequest called but id not found in mapRegistryCallback. id=2"),
            warning("sendHeadRequest called but id not found in mapRegistryCallback. id=1")));
}

TEST_F(MergedRegistration, IsForgottenWithItsEntry) {
    merge();
    withdrawFirst({});
    next("DELETE").answer(200);
    forgetThePast();
    registered("third", "abc");
    EXPECT_THAT(registrationIds(), ElementsAre(3));
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"third", "abc", true}));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
