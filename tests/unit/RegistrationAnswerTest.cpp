// The answer to a successful PUT: which answers are successes, and their effects and callbacks.
#include "ClientTest.h"
#include "States.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using testing::error;
using ::testing::IsEmpty;
using testing::warning;

class RegistrationAnswer : public ClientTest {
  protected:
    void answerPut(int status, const std::string& headerLines) {
        ClientTest::answerPut(answer(status, headerLines));
    }
};

TEST_F(RegistrationAnswer, IsASuccessWithOkOrCreated) {
    start();
    for (const int status : {200, 201}) {
        answerPut(status, location("/abc" + std::to_string(status)));
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", status}));
    }
    EXPECT_THAT(registrationIds(), ElementsAre(1, 2));
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(RegistrationAnswer, IsAFailureWithAnyOtherStatusEvenWithALocation) {
    start();
    for (const int status : {202, 204, 199, 301, 400, 0}) {
        answerPut(status, location("/abc"));
        EXPECT_THAT(log->takeLines(),
                    ElementsAre(warning("response put request was not ok, status=" +
                                        std::to_string(status))));
        expectGivenUp(status);
    }
}

TEST_F(RegistrationAnswer, IsAFailureWithoutLocation) {
    start();
    answerPut(201, "");
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("HTTP response is missing location field"),
                            warning("response put request was not ok, status=201")));
    expectGivenUp(201);
}

TEST_F(RegistrationAnswer, IsAFailureWithALocationWithoutSlash) {
    start();
    for (const std::string value : {"abc", ""}) {
        answerPut(200, location(value));
        EXPECT_THAT(log->takeLines(),
                    ElementsAre(warning("Cannot parse service uuid from HTTP location: " + value),
                                warning("response put request was not ok, status=200")));
        expectGivenUp(200);
    }
}

TEST_F(RegistrationAnswer, GivesTheUuidAfterTheLastSlashOfTheLocation) {
    const std::pair<std::string, std::string> uuids[] = {
        {"/entries/abc", "abc"},
        {"/x", "x"},
        {"http://host:80/e/def", "def"},
        {"relative/ghi", "ghi"},
        {"/entries/jkl?q=1#f", "jkl?q=1#f"},
        {"/entries/", ""},
    };
    start();
    client().addServiceRegisterStatusListener(listen());
    std::uint64_t id = 0;
    for (const auto& [value, uuid] : uuids) {
        answerPut(201, location(value));
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
        EXPECT_TRUE(notifiedDescription->hasId());
        EXPECT_EQ(uuidOf(++id), uuid);
        EXPECT_EQ(notifiedDescription->getUri(), value);
    }
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(RegistrationAnswer, EndsTheFirstRegistrationPermanently) {
    start();
    const Handle handle = registered("echo", "abc");
    const auto record = access().copyOf(1);
    EXPECT_EQ(record.state, state::registered);
    EXPECT_TRUE(record.wasRegistered);
    EXPECT_FALSE(record.hasBackoffSequence);
    EXPECT_EQ(record.registerCallbacks, std::nullopt);
    EXPECT_EQ(statusOf(1).uri, "/echo");
}

TEST_F(RegistrationAnswer, NotifiesTheListenerFirstAndThenTheCallbacksInOrder) {
    start();
    std::vector<std::string> told;
    client().addServiceRegisterStatusListener([&](const auto& model, bool registered) {
        EXPECT_TRUE(registered);
        told.push_back(model->getId());
    });
    client().registerServiceAtRegistry(registry, service("echo"),
                                       [&](const auto&) { told.push_back("first"); });
    access().addRegisterCallback(1, [&](const auto&) { told.push_back("second"); });
    next("PUT").answer(201, location("/abc"));
    EXPECT_THAT(told, IsEmpty());
    world.settle();
    EXPECT_THAT(told, ElementsAre("abc", "first", "second"));
}

TEST_F(RegistrationAnswer, IsSharedByTheCallbacksAsOneCopy) {
    start();
    std::vector<std::shared_ptr<communication::HttpResponse>> answers;
    const auto keep = [&](const OrvRegistrationResponse& response) {
        answers.push_back(response.httpResponse);
    };
    client().registerServiceAtRegistry(registry, service("echo"), keep);
    access().addRegisterCallback(1, keep);
    next("PUT").answer(201, location("/abc"), "body");
    world.settle();
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0], answers[1]);
    EXPECT_EQ(answers[0]->getBody(), "body");
    EXPECT_EQ(answers[0]->getLocation(), "/abc");
}

TEST_F(RegistrationAnswer, OfALostServiceNotifiesTheListenerButNoCallback) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registered("echo", "abc");
    loseEntry();
    world.settle();
    takeNotifications();
    takeOutcomes();
    next("PUT").answer(201, location("/entries/def"));
    world.settle();
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "def", true}));
    EXPECT_THAT(takeOutcomes(), IsEmpty());
    EXPECT_EQ(stateOf(1), State::Announced);
    EXPECT_EQ(notifiedDescription->getUri(), "/entries/def");
}

TEST_F(RegistrationAnswer, StartsTheCheckAfterItsInterval) {
    context.setCheckInterval(Seconds(30));
    start();
    answerPut(201, location("/abc"));
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(30000)));
    world.advance(Milliseconds(29999));
    EXPECT_EQ(world.requestsToTake(), 0U);
    world.advance(Milliseconds(1));
    EXPECT_EQ(next("HEAD").path(), "/abc");
}

TEST_F(RegistrationAnswer, StartsTheCheckAfterASecondSuccessToo) {
    start();
    registered("echo", "abc");
    loseEntry();
    world.takeAddedDelays();
    next("PUT").answer(200, location("/def"));
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)));
}

TEST_F(RegistrationAnswer, StartsNoCheckWhenChecksAreDisabled) {
    context.enableCheck(false);
    start();
    answerPut(201, location("/abc"));
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
}

TEST_F(RegistrationAnswer, HandsAnyCheckIntervalToTheTimerWithoutOverflow) {
    const auto largest = std::chrono::duration_cast<Seconds>(Milliseconds::max());
    const std::pair<Seconds, Milliseconds> delays[] = {
        {Seconds(0), Milliseconds(0)},
        {Seconds(-5), Milliseconds(-5000)},
        {largest, largest},
        {largest + Seconds(1), Milliseconds::max()},
        {Seconds::max(), Milliseconds::max()},
        {-largest, -largest},
        {-largest - Seconds(1), Milliseconds::min()},
        {Seconds::min(), Milliseconds::min()},
    };
    for (const auto& [interval, delay] : delays) {
        context.setCheckInterval(interval);
        start();
        answerPut(201, location("/abc"));
        EXPECT_THAT(world.takeAddedDelays(), ElementsAre(delay));
        context.deinit();
    }
}

TEST_F(RegistrationAnswer, ToAServiceBeingWithdrawnWithdrawsItWithoutANotification) {
    for (const std::uint32_t withdrawing : {state::unregistering, state::alsoUnregistering}) {
        start();
        client().addServiceRegisterStatusListener(listen());
        registerService("echo");
        access().setState(1, withdrawing);
        next("PUT").answer(201, location("/abc"));
        world.settle();
        EXPECT_THAT(log->takeLines(),
                    ElementsAre(warning("Trying to unregister a service that is not registered "
                                        "yet. Ignore. id=1")));
        EXPECT_THAT(outcomes, IsEmpty());
        EXPECT_THAT(notifications, IsEmpty());
        EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
        const auto record = access().copyOf(1);
        EXPECT_EQ(record.state, withdrawing);
        EXPECT_FALSE(record.wasRegistered);
        EXPECT_EQ(record.registerCallbacks, 1U);
        context.deinit();
    }
}

TEST_F(RegistrationAnswer, ToAServiceWithAnOutstandingDeleteWaitsForThatDelete) {
    start();
    const Handle handle = registered("echo", "abc");
    handle(record("withdrawal"));
    access().handlePut(1, request(1), answer(201, location("/def")));
    EXPECT_EQ(uuidOf(1), "abc");
    EXPECT_EQ(access().copyOf(1).unregisterCallbacks, 2U);
    takeOutcomes();
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(registrationIds(), IsEmpty());
}

}  // namespace
}  // namespace orvx::serviceregistryclient
