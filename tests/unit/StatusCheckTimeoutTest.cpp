// The time-out of a check, and the one check state that all registrations share.
#include "ClientTest.h"
#include "States.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::LogLine;
using testing::message;

const LogLine timeoutLine = message("callback: Head State TIMEOUT");
const LogLine lateLine = message("TIMEOUT on head request, ignore response.");

class StatusCheckTimeout : public ClientTest {};

TEST_F(StatusCheckTimeout, EndsTheCheckPermanently) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registered("echo", "abc");
    takeNotifications();
    takeOutcomes();
    world.takeAddedDelays();
    world.advance(Seconds(10));
    const simulation::Request head = next("HEAD");
    world.advance(Milliseconds(2999));
    EXPECT_TRUE(head.isOutstanding());
    EXPECT_THAT(log->takeLines(), IsEmpty());
    world.advance(Milliseconds(1));
    EXPECT_FALSE(head.isOutstanding()) << "it is abandoned";
    EXPECT_THAT(log->takeLines(), ElementsAre(timeoutLine));
    EXPECT_EQ(access().checkState(), check::timeout);

    world.settle();
    EXPECT_THAT(log->takeLines(), ElementsAre(lateLine))
        << "the abandoned HEAD ends with a late answer";
    EXPECT_EQ(access().checkState(), check::idle);
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(3000)));
    world.advance(std::chrono::hours(1));
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_EQ(access().state(1), state::registered);
    EXPECT_EQ(uuidOf(1), "abc");
    EXPECT_THAT(notifications, IsEmpty());
    EXPECT_THAT(outcomes, IsEmpty());
}

TEST_F(StatusCheckTimeout, MakesALateNotFoundAnswerBeIgnoredToo) {
    start();
    registered("echo", "abc");
    world.advance(Seconds(13));
    access().handleHead(1, request(1), answer(404));
    EXPECT_THAT(log->takeLines(), ElementsAre(timeoutLine, lateLine));
    EXPECT_EQ(access().state(1), state::registered);
    EXPECT_EQ(uuidOf(1), "abc");
    next("HEAD");
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
}

TEST_F(StatusCheckTimeout, DoesNotHinderTheWithdrawal) {
    start();
    const Handle withdraw = registered("echo", "abc");
    world.advance(Seconds(13));
    world.settle();
    takeOutcomes();
    next("HEAD");
    withdraw(record("withdrawal"));
    next("DELETE").answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
}

TEST_F(StatusCheckTimeout, LeavesOtherRequestsAlone) {
    start();
    registered("echo", "abc");
    world.advance(Seconds(10));
    const simulation::Request head = next("HEAD");
    registerService("time");
    const simulation::Request put = next("PUT");
    world.advance(Seconds(3));
    EXPECT_FALSE(head.isOutstanding());
    EXPECT_TRUE(put.isOutstanding());
}

TEST_F(StatusCheckTimeout, OfOneServiceMakesTheAnswerOfAnotherBeIgnored) {
    start();
    registered("echo", "abc");
    world.advance(Seconds(1));
    registered("time", "def");
    world.advance(Seconds(10));
    const simulation::Request echo = next("HEAD");
    simulation::Request time = next("HEAD");
    world.takeAddedDelays();
    world.advance(Seconds(2));
    EXPECT_FALSE(echo.isOutstanding());
    EXPECT_EQ(access().checkState(), check::timeout);

    time.answer(404);
    EXPECT_THAT(log->takeLines(), ElementsAre(timeoutLine, lateLine));
    EXPECT_EQ(access().state(2), state::registered);
    EXPECT_EQ(access().checkState(), check::idle);
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty()) << "this was the last check of the other";

    world.settle();
    EXPECT_THAT(log->takeLines(), IsEmpty());
    EXPECT_EQ(access().checkState(), check::responded);
    EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(10000)))
        << "and the abandoned one continues";
}

TEST_F(StatusCheckTimeout, OfOneServiceIsSettledByTheAnswerOfAnother) {
    start();
    registered("echo", "abc");
    world.advance(Seconds(1));
    registered("time", "def");
    world.advance(Seconds(10));
    const simulation::Request echo = next("HEAD");
    next("HEAD").answer(200);
    world.advance(Seconds(2));
    EXPECT_TRUE(echo.isOutstanding());
    EXPECT_THAT(log->takeLines(), IsEmpty());
    EXPECT_EQ(access().checkState(), check::idle);
    world.advance(Seconds(1));
    EXPECT_FALSE(echo.isOutstanding())
        << "the time-out of the other check abandons the oldest HEAD";
    EXPECT_THAT(log->takeLines(), ElementsAre(timeoutLine));
}

TEST_F(StatusCheckTimeout, OfTheSecondOfTwoAnsweredChecksAbandonsTheHeadThatIsOutstandingThen) {
    start();
    registered("echo", "abc");
    world.advance(Seconds(1));
    registered("time", "def");
    world.advance(Milliseconds(2500));
    registered("date", "ghi");
    world.advance(Milliseconds(8000));
    next("HEAD").answer(200);
    next("HEAD").answer(200);
    world.advance(Milliseconds(2499));
    const simulation::Request date = next("HEAD");
    EXPECT_TRUE(date.isOutstanding());
    EXPECT_THAT(log->takeLines(), IsEmpty());
    world.advance(Milliseconds(1));
    EXPECT_FALSE(date.isOutstanding()) << "after half a second";
    EXPECT_THAT(log->takeLines(), ElementsAre(timeoutLine));
}

TEST_F(StatusCheckTimeout, ThatIsLoggedWithoutAnIgnoredAnswerEndedNoCheck) {
    start();
    registered("echo", "abc");
    registered("time", "def");
    world.advance(Seconds(3));
    for (int i = 0; i < 3; ++i) {
        world.advance(Seconds(7));
        next("HEAD").answer(200);
        next("HEAD").answer(200);
        world.advance(Seconds(3));
        EXPECT_THAT(log->takeLines(), ElementsAre(timeoutLine)) << "of a check that was answered";
    }
}

using CheckState = StatusCheckTimeout;

TEST_F(CheckState, IsPendingAfterAHead) {
    start();
    registered("echo", "abc");
    EXPECT_EQ(access().checkState(), check::idle) << "as it was made";
    for (const auto value : {check::idle, check::timeout, check::responded, check::pending}) {
        access().setCheckState(value);
        access().sendHead(1, request(1));
        EXPECT_EQ(access().checkState(), check::pending);
    }
}

TEST_F(CheckState, IsRespondedAfterAnAnswerInTime) {
    start();
    registered("echo", "abc");
    world.takeAddedDelays();
    for (const auto value : {check::idle, check::responded, check::pending}) {
        access().setCheckState(value);
        access().handleHead(1, request(1), answer(200));
        EXPECT_EQ(access().checkState(), check::responded);
    }
    EXPECT_THAT(world.takeAddedDelays(),
                ElementsAre(Milliseconds(10000), Milliseconds(10000), Milliseconds(10000)));
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(CheckState, IsIdleAfterALateAnswer) {
    start();
    registered("echo", "abc");
    world.takeAddedDelays();
    access().setCheckState(check::timeout);
    access().handleHead(1, request(1), answer(200));
    EXPECT_EQ(access().checkState(), check::idle);
    EXPECT_THAT(log->takeLines(), ElementsAre(lateLine));
    EXPECT_THAT(world.takeAddedDelays(), IsEmpty());
}

TEST_F(StatusCheckTimeout, AfterAnAnswerMakesTheStateIdleAndAbandonsNoHead) {
    start();
    registered("echo", "abc");
    access().sendHead(1, request(1));
    access().setCheckState(check::responded);
    access().timeOutHead(*access().session(registry));
    EXPECT_EQ(access().checkState(), check::idle);
    EXPECT_TRUE(next("HEAD").isOutstanding());
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(StatusCheckTimeout, WithoutAnAnswerAbandonsTheHead) {
    start();
    registered("echo", "abc");
    for (const auto value : {check::idle, check::timeout, check::pending}) {
        access().sendHead(1, request(1));
        access().setCheckState(value);
        access().timeOutHead(*access().session(registry));
        EXPECT_EQ(access().checkState(), check::timeout);
        EXPECT_FALSE(next("HEAD").isOutstanding());
        EXPECT_THAT(log->takeLines(), ElementsAre(timeoutLine));
    }
}

TEST_F(StatusCheckTimeout, ReachesTheTimerAsItIs) {
    context.setCheckInterval(Seconds(0));
    for (const auto value :
         {Milliseconds(0), Milliseconds(-5), Milliseconds::min(), Milliseconds::max()}) {
        context.deinit();
        context.setHeadTimeout(value);
        start();
        registered("echo", "abc");
        world.advance(Milliseconds(0));
        next("HEAD");
        EXPECT_THAT(world.takeAddedDelays(), ElementsAre(Milliseconds(0), value));
    }
}

TEST_F(StatusCheckTimeout, OfZeroLeavesNoTimeAtAll) {
    context.setHeadTimeout(Milliseconds(0));
    start();
    registered("echo", "abc");
    world.advance(Seconds(10));
    world.settle();
    EXPECT_THAT(log->takeLines(), ElementsAre(timeoutLine, lateLine));
    EXPECT_FALSE(next("HEAD").isOutstanding());
    EXPECT_THAT(world.pendingDelays(), IsEmpty());
}

TEST_F(StatusCheckTimeout, OfTheLargestDurationNeverComes) {
    context.setHeadTimeout(Milliseconds::max());
    start();
    registered("echo", "abc");
    world.advance(Seconds(10));
    const simulation::Request head = next("HEAD");
    world.advance(std::chrono::hours(24 * 365));
    EXPECT_TRUE(head.isOutstanding());
}

using CheckInterval = StatusCheckTimeout;

TEST_F(CheckInterval, ReachesTheTimerInMilliseconds) {
    const auto largest = std::chrono::duration_cast<Seconds>(Milliseconds::max());
    const std::vector<std::pair<Seconds, Milliseconds>> intervals = {
        {Seconds(0), Milliseconds(0)},
        {Seconds(-1), Milliseconds(-1000)},
        {largest, largest},
        {largest + Seconds(1), Milliseconds::max()},
        {-largest, -largest},
        {-largest - Seconds(1), Milliseconds::min()},
        {Seconds::max(), Milliseconds::max()},
        {Seconds::min(), Milliseconds::min()}};
    for (const auto& [interval, delay] : intervals) {
        context.deinit();
        context.setCheckInterval(interval);
        start();
        registered("echo", "abc");
        access().handleHead(1, request(1), answer(200));
        EXPECT_THAT(world.takeAddedDelays(), ElementsAre(delay, delay));
    }
}

TEST_F(CheckInterval, OfZeroIsPacedByTheAnswers) {
    context.setCheckInterval(Seconds(0));
    start();
    registered("echo", "abc");
    for (int round = 0; round < 5; ++round) {
        world.advance(Milliseconds(500));
        simulation::Request head = next("HEAD");
        EXPECT_EQ(world.requestsToTake(), 0U);
        EXPECT_EQ(world.outstandingRequests(), 1U);
        head.answer(200);
    }
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

}  // namespace
}  // namespace orvx::serviceregistryclient
