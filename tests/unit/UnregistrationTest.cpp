// Withdrawing a service: the DELETE, the effect of its answers, the callbacks and the listener.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::warning;

class Unregistration : public ClientTest {
  protected:
    /// Registers "echo" at "/entries/abc" as the first service of a client, and drops all records.
    Handle registeredEcho() {
        start();
        client().addServiceRegisterStatusListener(listen());
        Handle handle = registered("echo", "entries/abc");
        takeOutcomes();
        takeNotifications();
        return handle;
    }
};

TEST_F(Unregistration, SendsTheDeleteAndForgetsTheService) {
    const Handle withdraw = registeredEcho();
    withdraw(record("withdrawal"));
    EXPECT_EQ(stateOf(1), State::Withdrawing);
    simulation::Request request = next("DELETE");
    EXPECT_EQ(request.path(), "/abc");
    EXPECT_EQ(request.contentType(), "application/json");
    EXPECT_EQ(request.body(), "");
    EXPECT_EQ(request.host(), "127.0.0.1");
    EXPECT_EQ(request.port(), 8500);
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty()) << "not before the answer";

    request.answer(200);
    EXPECT_THAT(registrationIds(), IsEmpty());
    EXPECT_THAT(outcomes, IsEmpty()) << "never on the thread that brings the answer";
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "abc", false}));
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(Unregistration, GoesToTheRegistryThatHoldsTheEntry) {
    registeredEcho();
    const Handle withdraw = client().registerServiceAtRegistry(
        common::ServiceInfo("other", "127.0.0.2", 8600), service("time"), {});
    next("PUT").answer(201, location("/def"));
    withdraw({});
    const simulation::Request request = next("DELETE");
    EXPECT_EQ(request.host(), "127.0.0.2");
    EXPECT_EQ(request.port(), 8600);
    EXPECT_EQ(request.path(), "/def");
}

TEST_F(Unregistration, NotifiesTheListenerBeforeTheCallbacks) {
    std::vector<std::string> told;
    const Handle withdraw = registeredEcho();
    client().addServiceRegisterStatusListener(
        [&told](const auto&, bool) { told.emplace_back("listener"); });
    withdraw([&told](const auto&) { told.emplace_back("callback"); });
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(told, ElementsAre("listener", "callback"));
}

TEST_F(Unregistration, OfAServiceReleasesAllThatWasKeptOfIt) {
    const Handle withdraw = registeredEcho();
    const auto kept = access().lifetimeOf(1);
    const std::weak_ptr<const void> description = notifiedDescription;
    withdraw({});
    next("DELETE").answer(200);
    world.settle();
    EXPECT_TRUE(kept.expired());
    notifiedDescription.reset();
    EXPECT_FALSE(description.expired());
    world.advance(Seconds(10));  // the check that was still planned
    EXPECT_TRUE(description.expired());
}

TEST_F(Unregistration, WithAnyOtherAnswerIsRefused) {
    const Handle withdraw = registeredEcho();
    for (const int status : {100, 201, 202, 204, 301, 404, 410, 500, 503}) {
        withdraw(record("withdrawal"));
        next("DELETE").answer(status);
        world.settle();
        EXPECT_EQ(stateOf(1), State::Announced);
        EXPECT_EQ(uuidOf(1), "abc");
        EXPECT_THAT(takeOutcomes(),
                    ElementsAre(Outcome{"withdrawal", "ERROR", "SERVICE_REGISTRY_ERROR", status}));
        EXPECT_THAT(log->takeLines(),
                    ElementsAre(warning("response to delete request was not ok, status=" +
                                        std::to_string(status))));
    }
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(Unregistration, WithoutAnAnswerFromTheRegistryIsRefused) {
    const Handle withdraw = registeredEcho();
    withdraw(record("withdrawal"));
    next("DELETE").answer(HttpResponse(CommunicationStatus::ConnectFailed));
    world.settle();
    EXPECT_EQ(stateOf(1), State::Announced);
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"withdrawal", "ERROR", "SERVICE_REGISTRY_ERROR", 0}));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response to delete request was not ok, status=0")));
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(Unregistration, ThatIsRefusedWithABodyLogsIt) {
    const Handle withdraw = registeredEcho();
    std::shared_ptr<HttpResponse> attached;
    withdraw([&](const OrvRegistrationResponse& response) { attached = response.httpResponse; });
    next("DELETE").answer(403, "X-Reason: owner\r\n", "not yours");
    world.settle();
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response to delete request was not ok, status=403"),
                            warning("error message from service registry=not yours")));
    ASSERT_NE(attached, nullptr);
    EXPECT_EQ(attached->getBody(), "not yours");
    EXPECT_EQ(attached->getHeader("X-Reason"), "owner");
}

TEST_F(Unregistration, ThatIsConfirmedWithABodyLogsNothing) {
    const Handle withdraw = registeredEcho();
    std::shared_ptr<HttpResponse> attached;
    withdraw([&](const OrvRegistrationResponse& response) { attached = response.httpResponse; });
    next("DELETE").answer(200, "", "gone");
    world.settle();
    EXPECT_THAT(log->takeLines(), IsEmpty());
    ASSERT_NE(attached, nullptr);
    EXPECT_EQ(attached->getBody(), "gone");
}

TEST_F(Unregistration, CanBeTriedAgainAfterARefusal) {
    const Handle withdraw = registeredEcho();
    withdraw(record("first"));
    next("DELETE").answer(500);
    world.settle();
    takeOutcomes();
    withdraw(record("second"));
    EXPECT_EQ(stateOf(1), State::Withdrawing);
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"second", "OK", "NONE", 200}));
    EXPECT_THAT(registrationIds(), IsEmpty());
}

TEST_F(Unregistration, AskedForAgainMeanwhileSendsNothingMore) {
    for (const int status : {200, 500}) {
        context.deinit();
        const Handle withdraw = registeredEcho();
        std::vector<std::shared_ptr<HttpResponse>> attached;
        const auto keep = [&attached](const OrvRegistrationResponse& response) {
            attached.push_back(response.httpResponse);
        };
        withdraw(record("first"));
        withdraw(keep);
        withdraw({});
        withdraw(keep);
        withdraw(record("last"));
        simulation::Request request = next("DELETE");
        EXPECT_EQ(world.requestsToTake(), 0U);
        log->takeLines();
        request.answer(status);
        world.settle();
        const std::vector<Outcome> told = takeOutcomes();
        ASSERT_EQ(told.size(), 2U);
        EXPECT_EQ(told[0].label, "first");
        EXPECT_EQ(told[1].label, "last");
        EXPECT_EQ(told[0].status, told[1].status);
        EXPECT_EQ(told[0].code, told[1].code);
        ASSERT_EQ(attached.size(), 2U);
        EXPECT_EQ(attached[0], attached[1]) << "one answer, shared";
        EXPECT_EQ(world.requestsToTake(), 0U);
    }
}

TEST_F(Unregistration, OfAServiceThatIsWithdrawnAlreadySucceeds) {
    const Handle withdraw = registeredEcho();
    withdraw({});
    next("DELETE").answer(200);
    world.settle();
    takeNotifications();
    withdraw(record("again"));
    EXPECT_THAT(outcomes, IsEmpty()) << "never on the caller's thread";
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"again", "OK", "NONE", -1}));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("Trying to unregister a service that is not registered "
                                    "(anymore). Ignore. id=1")));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(Unregistration, MakesRoomForANewRegistrationOfTheSameService) {
    registeredEcho()({});
    next("DELETE").answer(200);
    registered("echo", "abc");
    EXPECT_THAT(registrationIds(), ElementsAre(2));
    EXPECT_EQ(stateOf(2), State::Announced);
    EXPECT_THAT(takeNotifications(),
                ElementsAre(Notification{"echo", "abc", false}, Notification{"echo", "abc", true}));
}

using TheDelete = Unregistration;

TEST_F(TheDelete, ThatIsNeverAnsweredLeavesTheServiceBeingWithdrawn) {
    const Handle withdraw = registeredEcho();
    withdraw(record("first"));
    simulation::Request request = next("DELETE");
    world.advance(std::chrono::hours(24));
    withdraw(record("second"));
    world.settle();
    EXPECT_EQ(stateOf(1), State::Withdrawing);
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(world.requestsToTake(), 0U);
    request.answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"first", "OK", "NONE", 200},
                                            Outcome{"second", "OK", "NONE", 200}));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
