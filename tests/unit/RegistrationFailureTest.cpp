// A failed PUT that is not tried again, and a failed PUT of a lost service.
#include "ClientTest.h"
#include "NoInfoLogger.h"
#include "States.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using ::testing::ElementsAre;
using testing::error;
using testing::info;
using ::testing::IsEmpty;
using testing::warning;
using namespace std::chrono_literals;

class RegistrationFailure : public ClientTest {
  protected:
    /// Registers "echo" and loses its entry. The PUT is outstanding, and all records are dropped.
    void lost() {
        client().addServiceRegisterStatusListener(listen());
        registered("echo", "abc");
        loseEntry();
        forgetThePast();
    }
};

TEST_F(RegistrationFailure, IsReportedToEveryCallbackInOrderWithTheSharedAnswer) {
    start();
    std::vector<std::string> told;
    std::vector<std::shared_ptr<HttpResponse>> answers;
    const auto keep = [&](const std::string& label) {
        return [&, label](const OrvRegistrationResponse& response) {
            told.push_back(label);
            answers.push_back(response.httpResponse);
        };
    };
    client().registerServiceAtRegistry(registry, service("echo"), keep("first"));
    access().addRegisterCallback(1, keep("second"));
    next("PUT").answer(400, "X-Reason: none\r\n", "bad");
    EXPECT_THAT(told, IsEmpty());
    world.settle();
    EXPECT_THAT(told, ElementsAre("first", "second"));
    EXPECT_EQ(answers.at(0), answers.at(1));
    EXPECT_EQ(answers.at(0)->getBody(), "bad");
    EXPECT_EQ(answers.at(0)->getHeader("X-Reason"), "none");
}

TEST_F(RegistrationFailure, ReportsTheCommunicationStatus) {
    context.enableRetry(false);
    start();
    CommunicationStatus told = CommunicationStatus::Ok;
    client().registerServiceAtRegistry(registry, service("echo"),
                                       [&](const OrvRegistrationResponse& response) {
                                           told = response.httpResponse->getCommunicationStatus();
                                       });
    next("PUT").answer(HttpResponse(CommunicationStatus::TlsFailed));
    world.settle();
    EXPECT_EQ(told, CommunicationStatus::TlsFailed);
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response put request was not ok, communication "
                                    "status=TLS_FAILED, status=0")));
}

TEST_F(RegistrationFailure, LogsTheRegistrysMessageIfThereIsOne) {
    start();
    registerService("echo");
    next("PUT").answer(400, "", "no\nsuch thing");
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response put request was not ok, status=400"),
                            warning("error message from service registry=no\nsuch thing")));
    registerService("echo");
    next("PUT").answer(400);
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response put request was not ok, status=400")));
}

TEST_F(RegistrationFailure, LogsTheRegistrysMessageOnlyWithTheLastAttempt) {
    context.enableRetryOnHttpStatus(true);
    context.setInitialMaxRetryCount(1);
    start();
    registerService("echo");
    const auto status =
        warning("response put request was not ok, communication status=OK, status=500");
    next("PUT").answer(500, "", "first");
    EXPECT_THAT(log->takeLines(), ElementsAre(status, info("retry (1.) request: /echo")));
    world.advance(500ms);
    next("PUT").answer(500, "", "second");
    EXPECT_THAT(log->takeLines(),
                ElementsAre(status, warning("error message from service registry=second")));
}

TEST_F(RegistrationFailure, LeavesOtherServicesAlone) {
    start();
    registered("first", "abc");
    registerService("second");
    next("PUT").answer(400);
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

TEST_F(RegistrationFailure, DoesNotTellTheListener) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registerService("echo");
    next("PUT").answer(400);
    world.settle();
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(RegistrationFailure, OfALostServiceIsTriedAgainEveryCheckIntervalWithAnyRetryOptions) {
    context.enableRetry(false);
    context.setInitialMaxRetryCount(1);
    context.setCheckInterval(Seconds(4));
    start();
    lost();
    for (int round = 0; round < 20; ++round) {
        simulation::Request put = next("PUT");
        EXPECT_EQ(put.path(), "/echo");
        if (round % 2 == 0) {
            put.answer(HttpResponse(CommunicationStatus::TimedOut));
        } else {
            put.answer(400, "", "body");
        }
        EXPECT_THAT(log->takeLines(), ElementsAre(info("re-register request: /echo")));
        EXPECT_THAT(world.takeAddedDelays(), ElementsAre(4000ms));
        EXPECT_EQ(stateOf(1), State::Lost);
        world.advance(3999ms);
        EXPECT_EQ(world.requestsToTake(), 0U);
        world.advance(1ms);
    }
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_THAT(notifications, IsEmpty());
}

TEST_F(RegistrationFailure, OfALostServiceThatSucceedsLaterIsForgotten) {
    start();
    lost();
    next("PUT").answer(500);
    world.advance(10s);
    next("PUT").answer(200, location("/def"));
    world.settle();
    EXPECT_EQ(stateOf(1), State::Announced);
    EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "def", true}));
    EXPECT_THAT(takeOutcomes(), IsEmpty());
}

TEST_F(RegistrationFailure, OfALostServiceHandsTheLargestIntervalToTheTimerWithoutOverflow) {
    context.setCheckInterval(Seconds::max());
    start();
    registered("echo", "abc");
    world.takeAddedDelays();
    access().handlePutError(1, request(1), answer(500));
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds::max()));
}

TEST_F(RegistrationFailure, OfALostServiceIsNotAnnouncedWhereTheLoggerWantsNoInfo) {
    const auto noInfo = std::make_shared<testing::NoInfoLoggerFactory>();
    context.setLoggerFactory(noInfo);
    start();
    lost();
    next("PUT").answer(500);
    EXPECT_THAT(noInfo->takeLines(), IsEmpty());
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(10000ms));
}

TEST_F(RegistrationFailure, OfALostServiceBeingWithdrawnCompletesTheWithdrawal) {
    for (const std::uint32_t withdrawing : {state::unregistering, state::alsoUnregistering}) {
        start();
        client().addServiceRegisterStatusListener(listen());
        const Handle handle = registered("echo", "abc");
        registered("again", "abc");
        handle(record("first"));
        handle(record("second"));
        access().setState(1, withdrawing);
        forgetThePast();
        access().handlePutError(1, request(1), answer(500, "", "body"));
        EXPECT_THAT(registrationIds(), IsEmpty());
        world.settle();
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"first", "OK", "NONE", 500},
                                                Outcome{"second", "OK", "NONE", 500}));
        EXPECT_THAT(takeNotifications(), ElementsAre(Notification{"echo", "abc", false}));
        EXPECT_THAT(log->takeLines(), IsEmpty());
        EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
        next("DELETE").answer(200);
        world.settle();
        EXPECT_THAT(outcomes, IsEmpty());
        context.deinit();
    }
}

}  // namespace
}  // namespace orvx::serviceregistryclient
