// The answer to a failed PUT: retry, give up, or register a lost service again.
#include "ClientTest.h"
#include "NoInfoLogger.h"

#include <set>

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using ::testing::ElementsAre;
using testing::info;
using ::testing::IsEmpty;
using testing::warning;
using namespace std::chrono_literals;

class Retry : public ClientTest {
  protected:
    static HttpResponse unreachable() { return HttpResponse(CommunicationStatus::ConnectFailed); }
    static testing::LogLine unreachableLine() {
        return warning(
            "response put request was not ok, communication status=CONNECT_FAILED, "
            "status=0");
    }
    void expectScheduled(std::initializer_list<Milliseconds> delays) {
        EXPECT_THAT(world.takeAddedDelays(), ::testing::ElementsAreArray(delays));
        EXPECT_THAT(outcomes, IsEmpty());
        EXPECT_THAT(registrationIds(), ElementsAre(1));
        EXPECT_EQ(stateOf(1), State::Announcing);
    }
};

TEST_F(Retry, OfALimitedNumberIsSpacedEvenly) {
    context.setInitialMaxRetryCount(3);
    context.setRetryInterval(700ms);
    start();
    registerService("echo");
    std::set<std::string> bodies;
    for (const std::string number : {"1", "2", "3"}) {
        simulation::Request put = next("PUT");
        bodies.insert(put.body());
        put.answer(unreachable());
        world.settle();
        EXPECT_THAT(log->takeLines(),
                    ElementsAre(unreachableLine(), info("retry (" + number + ".) request: /echo")));
        expectScheduled({700ms});
        world.advance(699ms);
        EXPECT_EQ(world.requestsToTake(), 0U);
        world.advance(1ms);
        EXPECT_EQ(world.requestsToTake(), 1U);
    }
    simulation::Request last = next("PUT");
    EXPECT_EQ(last.path(), "/echo");
    bodies.insert(last.body());
    EXPECT_EQ(bodies.size(), 1U) << "each attempt sends the same body";
    last.answer(unreachable());
    world.settle();
    EXPECT_THAT(log->takeLines(), ElementsAre(unreachableLine()));
    expectGivenUp(0);
}

TEST_F(Retry, WithoutLimitFollowsTheBackoff) {
    start();
    registerService("echo");
    Milliseconds step = 500ms;
    for (int round = 0; round < 40; ++round) {
        next("PUT").answer(unreachable());
        const auto delays = world.takeAddedDelays();
        ASSERT_EQ(delays.size(), 1U);
        EXPECT_GE(delays[0], step / 2);
        EXPECT_LE(delays[0], step);
        world.advance(delays[0]);
        step = std::min(step * 2, 8000ms);
    }
    world.settle();
    EXPECT_THAT(outcomes, IsEmpty());
    EXPECT_EQ(log->takeLines().back(), info("retry (40.) request: /echo"));
}

TEST_F(Retry, OfEachServiceHasABackoffOfItsOwn) {
    start();
    registerService("first");
    for (int round = 0; round < 8; ++round) {
        next("PUT").answer(unreachable());
        world.advance(world.pendingDelays().front());
    }
    world.takeAddedDelays();
    registerService("second");
    next("PUT");
    next("PUT").answer(unreachable());
    EXPECT_LE(world.takeAddedDelays().front(), 500ms);
}

TEST_F(Retry, EndsWithASuccessThatIsReportedOnce) {
    start();
    answerPut(unreachable());
    world.advance(500ms);
    next("PUT").answer(201, location("/abc"));
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
    world.advance(1s);
    EXPECT_EQ(world.requestsToTake(), 0U);
}

TEST_F(Retry, HandsAnyIntervalToTheTimerAsItIs) {
    context.setInitialMaxRetryCount(1);
    for (const Milliseconds interval : {0ms, -5ms, Milliseconds::max(), Milliseconds::min(), 1ms}) {
        context.setRetryInterval(interval);
        start();
        answerPut(unreachable());
        expectScheduled({interval});
        context.deinit();
    }
}

TEST_F(Retry, WithoutLimitTakesAnyIntervalAsItsStepButPausesTenMillisecondsAtLeast) {
    const std::pair<Milliseconds, std::pair<Milliseconds, Milliseconds>> bounds[] = {
        {0ms, {10ms, 10ms}},
        {-5ms, {10ms, 10ms}},
        {Milliseconds::min(), {10ms, 10ms}},
        {Milliseconds::max(), {Milliseconds::max() / 2, Milliseconds::max()}},
    };
    for (const auto& [interval, bound] : bounds) {
        context.setRetryInterval(interval);
        start();
        answerPut(unreachable());
        const auto delays = world.takeAddedDelays();
        ASSERT_EQ(delays.size(), 1U);
        EXPECT_GE(delays[0], bound.first);
        EXPECT_LE(delays[0], bound.second);
        context.deinit();
    }
}

TEST_F(Retry, WhenDisabledIsNotMade) {
    context.enableRetry(false);
    context.enableRetryOnHttpStatus(true);
    start();
    answerPut(unreachable());
    EXPECT_THAT(log->takeLines(), ElementsAre(unreachableLine()));
    expectGivenUp(0);
    answerPut(answer(503));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response put request was not ok, communication status=OK, "
                                    "status=503")));
    expectGivenUp(503);
}

TEST_F(Retry, OnAnHttpStatusOfTheSetIsMadeWhereEnabled) {
    context.enableRetryOnHttpStatus(true);
    context.setInitialMaxRetryCount(1);
    start();
    answerPut(answer(503, "", "busy"));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response put request was not ok, communication status=OK, "
                                    "status=503"),
                            info("retry (1.) request: /echo")));
    expectScheduled({500ms});
}

TEST_F(Retry, OnAnHttpStatusOutsideTheSetIsNotMade) {
    context.enableRetryOnHttpStatus(true);
    context.setHttpStatusCodesForRetry({HttpResponse::StatusCode::GatewayTimeout});
    start();
    answerPut(answer(503));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response put request was not ok, status=503")));
    expectGivenUp(503);
}

TEST_F(Retry, OnAnHttpStatusIsNotMadeWhereNotEnabled) {
    start();
    answerPut(answer(503));
    EXPECT_THAT(log->takeLines(),
                ElementsAre(warning("response put request was not ok, status=503")));
    expectGivenUp(503);
}

TEST_F(Retry, WithoutAnAnswerIsMadeWithAnyStatusCodes) {
    context.enableRetryOnHttpStatus(true);
    context.setHttpStatusCodesForRetry({});
    context.setInitialMaxRetryCount(1);
    start();
    answerPut(unreachable());
    expectScheduled({500ms});
}

TEST_F(Retry, IsMadeForAnUnusableLocationOnlyIfItsStatusIsInTheSet) {
    context.enableRetryOnHttpStatus(true);
    context.setHttpStatusCodesForRetry({HttpResponse::StatusCode::Created});
    context.setInitialMaxRetryCount(1);
    start();
    answerPut(answer(201));
    expectScheduled({500ms});
    world.advance(500ms);
    next("PUT").answer(200, location("abc"));
    world.settle();
    expectGivenUp(200);
}

TEST_F(Retry, IsDroppedByDeinitAndTheServiceKept) {
    start();
    answerPut(unreachable());
    client().deinit();
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
    client().init();
    world.advance(1h);
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

TEST_F(Retry, IsNotAnnouncedWhereTheLoggerWantsNoInfo) {
    const auto noInfo = std::make_shared<testing::NoInfoLoggerFactory>();
    context.setLoggerFactory(noInfo);
    start();
    answerPut(unreachable());
    EXPECT_THAT(noInfo->takeLines(), ElementsAre(unreachableLine()));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
