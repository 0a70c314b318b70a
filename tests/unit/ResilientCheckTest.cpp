// With resilience each entry has a check of its own, as long as its service is announced.
#include "ResilientTest.h"

#include <orvx/simulation/Registry.h>

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::MatchesRegex;

class AnIndependentCheck : public ResilientTest {
  protected:
    void checkIsAnswered(int status) {
        waitFor("HEAD");
        answer(status);
    }
};

TEST_F(AnIndependentCheck, IsFirstMadeWithinTheIntervalAndThenAfterEach) {
    start();
    registered("echo", "abc");
    EXPECT_THAT(waitFor("HEAD"), Le(Seconds(10)));
    answer(200);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(waitFor("HEAD"), Seconds(10));
        answer(200);
    }
    EXPECT_EQ(status().lastConfirmed, status().nextAttempt.value() - Seconds(10));
}

TEST_F(AnIndependentCheck, IsFirstMadeWithinTheShortestIntervalIfTheIntervalIsZero) {
    context.setCheckInterval(Seconds(0));
    start();
    registered("echo", "abc");
    EXPECT_THAT(waitFor("HEAD"), Le(Milliseconds(1)));
}

TEST_F(AnIndependentCheck, IsNeverMadeWhenDisabled) {
    context.enableCheck(false);
    start();
    registered("echo", "abc");
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(AnIndependentCheck, ThatTimesOutIsGivenUpAloneAndMadeAgainAfterTheInterval) {
    start();
    registered("echo", "abc");
    waitFor("HEAD");
    const auto head = *last;
    world.advance(Milliseconds(3000));
    world.settle();
    EXPECT_TRUE(head.isOutstanding()) << "the request ends with its own time-out";
    EXPECT_EQ(state(), "unreachable");
    EXPECT_EQ(status().lastFailure->communicationStatus, CommunicationStatus::TimedOut);
    EXPECT_THAT(status().lastFailure->text,
                MatchesRegex("HEAD: TIMED_OUT: no answer from .+:[0-9]+ in time"));
    EXPECT_EQ(waitFor("HEAD"), Seconds(10));
    answer(200);
    EXPECT_EQ(state(), "announced");
    EXPECT_THAT(takeEvents(), ElementsAre(Event{"announced", "echo", "announced"},
                                          Event{"unreachable", "echo", "unreachable"},
                                          Event{"reachable", "echo", "announced"}));
}

TEST_F(AnIndependentCheck, MayHaveTheLongestTimeOut) {
    context.setHeadTimeout(Milliseconds::max());
    start();
    registered("echo", "abc");
    registered("time", "def");
    for (int i = 0; i < 6; ++i) {
        waitFor("HEAD");
        answer(200);
    }
    waitFor("HEAD");
    waitFor("HEAD");
    expectNothingFor(std::chrono::hours(1));
    EXPECT_EQ(state(0), "announced");
    EXPECT_EQ(state(1), "announced");
}

TEST_F(AnIndependentCheck, ThatIsNotAnsweredWhenAnotherFindsALossIsMadeAgainSoon) {
    context.setHeadTimeout(Seconds(30));
    start();
    registered("echo", "abc");
    registered("time", "def");
    waitFor("HEAD");
    auto first = *last;
    waitFor("HEAD");
    first.answer(404);
    world.settle();
    next("PUT");
    fail(CommunicationStatus::ReceiveFailed);
    EXPECT_THAT(waitFor("HEAD"), Le(Seconds(1)));
}

TEST_F(AnIndependentCheck, IgnoresALateAnswer) {
    start();
    registered("echo", "abc");
    waitFor("HEAD");
    auto head = *last;
    world.advance(Milliseconds(3000));
    head.answer(404);
    world.settle();
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_EQ(waitFor("HEAD"), Seconds(10));
}

TEST_F(AnIndependentCheck, DoesNotEndWithTheTimeOutOfAnother) {
    start();
    registered("echo", "abc");
    registered("time", "def");
    waitFor("HEAD");
    const std::string silent = last->path();
    int answered = 0;
    for (const Milliseconds end = world.now() + Seconds(100); world.now() < end;) {
        waitFor("HEAD", Seconds(20));
        if (last->path() != silent) {
            answer(200);
            ++answered;
        }
    }
    EXPECT_GE(answered, 9);
}

// 1,000 entries are checked within two seconds, so a quarter of them in half a second. The bounds
// are six standard deviations away.
TEST_F(AnIndependentCheck, OfEachEntryIsMadeAtAnEvenPaceWhenOneFindsALoss) {
    start();
    for (int i = 0; i < 1000; ++i) {
        registered(std::to_string(i), "uuid-" + std::to_string(i));
    }
    checkIsAnswered(404);
    while (world.takeRequest()->method() != "PUT") {  // a check that was due at the same time
    }
    int checks = 0;
    for (const Milliseconds end = world.now() + Milliseconds(500); world.now() < end; ++checks) {
        waitFor("HEAD");
    }
    EXPECT_THAT(checks, AllOf(Ge(168), Le(332)));
}

TEST_F(AnIndependentCheck, FindsALossAndAnnouncesAgainAtOnce) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registered("echo", "abc");
    checkIsAnswered(404);
    EXPECT_EQ(state(), "lost");
    EXPECT_EQ(status().uuid, "");
    EXPECT_EQ(expect("PUT", "/echo", 201, "def"), Milliseconds(0));
    EXPECT_EQ(state(), "announced");
    EXPECT_EQ(status().uuid, "def");
    EXPECT_THAT(takeNotifications(),
                ElementsAre(Notification{"echo", "abc", true}, Notification{"echo", "", false},
                            Notification{"echo", "def", true}));
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
}

TEST_F(AnIndependentCheck, TakesNothingButNotFoundAndGoneForALoss) {
    start();
    registered("echo", "abc");
    for (const int status : {500, 503, 403, 301}) {
        checkIsAnswered(status);
        EXPECT_EQ(state(), "unreachable");
        EXPECT_EQ(this->status().lastFailure->httpStatus, status);
    }
    checkIsAnswered(200);
    EXPECT_EQ(state(), "announced");
    checkIsAnswered(410);
    EXPECT_EQ(state(), "lost");
}

TEST_F(AnIndependentCheck, ResumesAfterARegistrationThatFailedAgain) {
    start();
    registered("echo", "abc");
    checkIsAnswered(404);
    waitFor("PUT");
    fail(CommunicationStatus::ConnectFailed);
    Milliseconds step(500);
    for (int round = 0; round < 3; ++round) {
        EXPECT_THAT(waitFor("PUT"), ::testing::AllOf(::testing::Ge(step / 2), Le(step)));
        fail(CommunicationStatus::ReceiveFailed);
        step *= 2;
    }
    waitFor("PUT");
    answer(403);
    EXPECT_EQ(state(), "lost") << "an announced entry is never given up";
    EXPECT_EQ(expect("PUT", "/echo", 201, "def"), Seconds(10));
    checkIsAnswered(200);
}

/// Many services at a registry that answers by itself.
class ALostRegistry : public ResilientTest {
  protected:
    static constexpr std::size_t kServices = 1000;

    ALostRegistry() {
        communication::HttpConfig http;
        http.statistics = statistics;
        context.setHttpConfig(http);
    }
    void announceAll() {
        for (std::size_t i = 0; i < kServices; ++i) {
            client().registerServiceAtRegistry(registry, service(std::to_string(i)), {});
        }
        entries.advance(Seconds(25));
        ASSERT_EQ(entries.entries(), kServices);
        ASSERT_GT(completedRequests(), kServices);
    }
    Milliseconds timeUntilAllAreBack() {
        const Milliseconds begin = world.now();
        while (entries.entries() < kServices && world.now() - begin < Seconds(60)) {
            entries.advance(Milliseconds(1));
        }
        return world.now() - begin;
    }

    std::uint64_t completedRequests() const { return statistics->snapshot().completed; }

    simulation::Registry entries{world};
    const std::shared_ptr<communication::ClientStatistics> statistics =
        std::make_shared<communication::ClientStatistics>();
};

TEST_F(ALostRegistry, HasAThousandServicesBackWithinThreeSeconds) {
    start();
    announceAll();
    for (int round = 0; round < 5; ++round) {
        entries.forgetAll();
        EXPECT_THAT(timeUntilAllAreBack(), Le(Seconds(3)));
        entries.advance(Seconds(20));
    }
}

TEST_F(ALostRegistry, ThatWasAwayHasThemBackWithinThreeSecondsOfItsFirstAnswer) {
    start();
    announceAll();
    entries.fails(HttpResponse(CommunicationStatus::ConnectFailed));
    entries.advance(Seconds(60));
    entries.forgetAll();
    entries.works();
    EXPECT_THAT(timeUntilAllAreBack(), Le(Seconds(3)));
}

// Replicas that answer before they have loaded their entries: without a growing pause, each check
// of all entries registered them again without end.
TEST_F(ALostRegistry, IsAskedNoMoreThanByTheIntervalWhileItKeepsNothing) {
    start();
    announceAll();
    const auto askedIn = [this](Milliseconds duration) {
        const std::uint64_t before = completedRequests();
        const Milliseconds end = world.now() + duration;
        while (world.now() < end) {
            entries.forgetAll();
            entries.advance(Milliseconds(50));
        }
        return completedRequests() - before;
    };
    askedIn(Seconds(60));
    // A PUT and a HEAD for each service in half an interval, and in a check of all services.
    EXPECT_LE(askedIn(Seconds(100)), 60 * kServices);
}

TEST_F(ALostRegistry, IsNotAskedMoreOftenByANetworkThatLosesAnswers) {
    start();
    announceAll();
    const std::uint64_t before = completedRequests();
    const Milliseconds begin = world.now();
    while (world.now() - begin < Seconds(100)) {
        entries.fails(HttpResponse(CommunicationStatus::ReceiveFailed));
        entries.advance(Milliseconds(2));
        entries.works();
        entries.advance(Milliseconds(98));
    }
    const std::uint64_t asked = completedRequests() - before;
    EXPECT_LE(asked, 21 * kServices) << "one regular check and one further one in an interval";
}

}  // namespace
}  // namespace orvx::serviceregistryclient
