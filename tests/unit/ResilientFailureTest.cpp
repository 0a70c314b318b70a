// With resilience transient failures are retried with the back-off, and other failures are reported
// immediately.
#include "ResilientTest.h"
#include "ResilientUpkeep.h"

namespace orvx::serviceregistryclient {
namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Le;
using Upkeep = OrvServiceRegistryClient::ResilientUpkeep;

class APassingFailure : public ResilientTest {
  protected:
    /// Fails the PUTs one after another, and expects the delays of the back-off.
    void expectBackOff(int rounds, const std::function<void(int)>& failOne) {
        waitFor("PUT");
        failOne(0);
        Milliseconds step(500);
        for (int round = 1; round <= rounds; ++round) {
            EXPECT_THAT(waitFor("PUT"), AllOf(Ge(step / 2), Le(step)));
            failOne(round);
            step = std::min(2 * step, Milliseconds(8000));
        }
    }
    /// Fails the PUT of a registration without retries, which is answered with the error.
    void failFirst(CommunicationStatus status) {
        registerService("echo");
        waitFor("PUT");
        fail(status);
        EXPECT_THAT(takeOutcomes(),
                    ElementsAre(Outcome{"echo", "ERROR", "SERVICE_REGISTRY_ERROR", 0}));
    }
};

TEST_F(APassingFailure, IsTriedAgainByTheBackOffWhetherSilenceOrRefusal) {
    start();
    registerService("echo");
    const std::vector<int> statuses{408, 425, 429, 500, 502, 503, 504};
    expectBackOff(9, [&](int round) {
        if (round % 3 == 2) {
            fail(CommunicationStatus::ConnectFailed);
        } else {
            answer(statuses[static_cast<std::size_t>(round) % statuses.size()]);
        }
    });
    EXPECT_THAT(takeOutcomes(), IsEmpty());
    EXPECT_EQ(state(), "announcing");
    EXPECT_EQ(status().attempts, 10U);
    EXPECT_THAT(status().lastFailure->text, HasSubstr("PUT"));
    waitFor("PUT");
    answer(201, location("/abc"));
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
    EXPECT_THAT(takeEvents(), ElementsAre(Event{"unreachable", "echo", "announcing"},
                                          Event{"reachable", "echo", "announcing"},
                                          Event{"announced", "echo", "announced"}));
}

TEST_F(APassingFailure, BeginsTheBackOffAnewAfterASuccess) {
    start();
    registerService("echo");
    expectBackOff(4, [this](int) { answer(503); });
    expect("PUT", "/echo", 201, "abc");
    expect("HEAD", "/abc", 404);
    expectBackOff(4, [this](int) { answer(503); });
}

TEST_F(APassingFailure, BeginsTheBackOffAnewAfterADelete) {
    start();
    registered("echo", "abc")({});
    for (int round = 0; round < 6; ++round) {
        waitFor("DELETE");
        answer(503);
    }
    waitFor("DELETE");
    registerService("echo");
    answer(200);
    expectBackOff(3, [this](int) { answer(503); });
}

TEST_F(APassingFailure, OfASuccessWithoutAUsableLocationIsTriedAgain) {
    start();
    registerService("echo");
    expectBackOff(3, [this](int round) {
        answer(201, round == 0 ? "" : location(round == 1 ? "abc" : "/"));
        EXPECT_EQ(status().lastFailure->text, "PUT: HTTP status 201 without a usable Location");
    });
    expect("PUT", "/echo", 201, "abc");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
}

TEST_F(APassingFailure, IsLoggedWithTheLocationOrAsAMissingOne) {
    start();
    registerService("echo");
    waitFor("PUT");
    log->takeLines();
    answer(201, "");
    EXPECT_THAT(log->takeLines(),
                Contains(testing::warning("HTTP response is missing location field")));
    for (const std::string value : {"abc", "/", ""}) {
        waitFor("PUT");
        answer(201, location(value));
        EXPECT_THAT(
            log->takeLines(),
            Contains(testing::warning("Cannot parse service uuid from HTTP location: " + value)));
    }
}

TEST_F(APassingFailure, NamesTheSegmentBeforeASlashAtTheEnd) {
    start();
    const Handle handle = registerService("echo");
    expect("PUT", "/echo", 201, "entries/abc/");
    EXPECT_EQ(status().uuid, "abc");
    handle({});
    expect("DELETE", "/abc", 200);
}

TEST_F(APassingFailure, IsNotTriedAgainBeforeItsRetryAfter) {
    start();
    registerService("echo");
    waitFor("PUT");
    answer(503, "Retry-After: 7\r\n");
    EXPECT_EQ(waitFor("PUT"), Seconds(7));
    answer(429, "retry-after: 999999999999999999999\r\n");
    EXPECT_EQ(waitFor("PUT"), Upkeep::kLongestRetryAfter);
    answer(503, "Retry-After: Thu, 01 Jan 2026 00:01:30 GMT\r\n");
    EXPECT_EQ(waitFor("PUT"), Seconds(90 - 67));
    answer(503, "Retry-After: soon\r\n");
    EXPECT_THAT(waitFor("PUT"), Le(Milliseconds(4000)));
    answer(201, location("/abc"));
    waitFor("HEAD");
    answer(503, "Retry-After: 40\r\n");
    EXPECT_EQ(waitFor("HEAD"), Seconds(40));
}

TEST_F(APassingFailure, HoldsAWithdrawalBackTooUntilItsRetryAfter) {
    start();
    const Handle handle = registerService("echo");
    waitFor("PUT");
    answer(503, "Retry-After: 7\r\n");
    handle({});
    EXPECT_EQ(waitFor("PUT"), Seconds(7));
}

TEST_F(APassingFailure, EndsAFirstRegistrationWithoutRetries) {
    context.enableRetry(false);
    start();
    for (const auto status :
         {CommunicationStatus::ConnectFailed, CommunicationStatus::ResolveFailed}) {
        SCOPED_TRACE(static_cast<int>(status));
        failFirst(status);
        EXPECT_THAT(context.getRegistrations(), IsEmpty());
        expectNothingFor(std::chrono::hours(1));
    }
}

// The client does not know whether there was a connection.
TEST_F(APassingFailure, IsTriedAgainWithoutRetriesIfThePutMayHaveArrived) {
    context.enableRetry(false);
    start();
    for (const auto status : {CommunicationStatus::TimedOut, CommunicationStatus::TlsFailed}) {
        SCOPED_TRACE(static_cast<int>(status));
        failFirst(status);
        EXPECT_EQ(state(), "withdrawing");
        waitFor("PUT");
        fail(status);
        expect("PUT", "/echo", 201, "abc");
        expect("DELETE", "/abc", 200);
        EXPECT_THAT(context.getRegistrations(), IsEmpty());
    }
}

TEST_F(APassingFailure, DeletesAnEntryThatMayExistWhenRetriesAreUsedUp) {
    context.setInitialMaxRetryCount(2);
    start();
    registerService("echo");
    waitFor("PUT");
    answer(504);
    EXPECT_EQ(waitFor("PUT"), Milliseconds(500));
    answer(504);
    EXPECT_EQ(waitFor("PUT"), Milliseconds(500));
    EXPECT_THAT(takeOutcomes(), IsEmpty());
    answer(504);
    EXPECT_THAT(takeOutcomes(),
                ElementsAre(Outcome{"echo", "ERROR", "SERVICE_REGISTRY_ERROR", 504}));
    expect("PUT", "/echo", 201, "abc");
    expect("DELETE", "/abc", 200);
    EXPECT_THAT(takeOutcomes(), IsEmpty());
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(APassingFailure, IsNotTriedAgainBeforeTheLongestRetryInterval) {
    context.setInitialMaxRetryCount(2);
    context.setRetryInterval(Milliseconds::max());
    start();
    world.advance(Seconds(1));
    registerService("echo");
    waitFor("PUT");
    answer(503);
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(APassingFailure, IsTriedAgainSoonWithANegativeRetryInterval) {
    context.setRetryInterval(Milliseconds::min());
    start();
    registerService("echo");
    waitFor("PUT");
    for (int round = 0; round < 8; ++round) {
        answer(503);
        EXPECT_LE(waitFor("PUT"), Milliseconds(160));
    }
}

TEST_F(APassingFailure, MayBeAnyStatusThatTheContextNames) {
    context.enableRetryOnHttpStatus(true);
    context.setHttpStatusCodesForRetry({HttpResponse::StatusCode::Conflict});
    start();
    registerService("echo");
    waitFor("PUT");
    answer(409);
    expect("PUT", "/echo", 201, "abc");
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
}

TEST_F(APassingFailure, IsNoneWhereItWillNeverSucceed) {
    start();
    for (const int status : {400, 401, 403, 409, 422, 301, 501, 505, 507, 511}) {
        registerService("echo");
        waitFor("PUT");
        answer(status);
        EXPECT_THAT(takeOutcomes(),
                    ElementsAre(Outcome{"echo", "ERROR", "SERVICE_REGISTRY_ERROR", status}));
    }
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
    expectNothingFor(std::chrono::hours(1));
}

TEST_F(APassingFailure, IsNoneWhereTheEndpointIsImpossible) {
    world.setHook([](simulation::World::Step step) {
        if (step == simulation::World::Step::MakeSession) {
            throw std::runtime_error("no host");
        }
    });
    start();
    registerService("echo");
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "ERROR", "SERVICE_REGISTRY_ERROR", 0}));
    EXPECT_THAT(context.getRegistrations(), IsEmpty());
}

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

TEST(RetryAfter, IsSecondsOrADateAndNothingElse) {
    const auto at = system_clock::from_time_t(784111777);  // Sun, 06 Nov 1994 08:49:37 GMT
    EXPECT_EQ(Upkeep::delayOf("0", at), seconds(0));
    EXPECT_EQ(Upkeep::delayOf("59", at), seconds(59));
    EXPECT_EQ(Upkeep::delayOf("60", at), seconds(60));
    EXPECT_EQ(Upkeep::delayOf("61", at), seconds(60));
    EXPECT_EQ(Upkeep::delayOf("Sun, 06 Nov 1994 08:49:38 GMT", at), seconds(1));
    EXPECT_EQ(Upkeep::delayOf("Sun, 06 Nov 1994 08:49:37 GMT", at), seconds(0));
    EXPECT_EQ(Upkeep::delayOf("Sun, 06 Nov 1994 08:00:00 GMT", at), seconds(0));
    EXPECT_EQ(Upkeep::delayOf("Fri, 31 Dec 9999 23:59:59 GMT", at), seconds(60));
    EXPECT_EQ(Upkeep::delayOf("Sunday, 06-Nov-94 08:49:47 GMT", at), seconds(10));
    EXPECT_EQ(Upkeep::delayOf("Sun Nov  6 08:49:47 1994", at), seconds(10));
    EXPECT_EQ(Upkeep::delayOf("Wed Nov 16 08:49:37 1994", at), seconds(60));
    for (const char* const text : {"",
                                   "-1",
                                   "+1",
                                   "1.5",
                                   " 1",
                                   "1 ",
                                   "0x10",
                                   "soon",
                                   "Sun, 06 Nov 1994 08:49:47",
                                   "Monday, 06-Nov-94 08:49:47 GMT",
                                   "Sunday, 06-Nov-1994 08:49:47 GMT",
                                   "Sun Nov 6 08:49:47 1994",
                                   "Sun Nov 06 08:49:47 1994",
                                   "Mon Nov  6 08:49:47 1994",
                                   "Sun, 6 Nov 1994 08:49:47 GMT",
                                   "Mon, 06 Nov 1994 08:49:47 GMT",
                                   "Sun, 06 Nov 1994 08:49:47 GMT ",
                                   "Sun, 06 Nov 1994 08:49:47 CET",
                                   "Sun, 06 Nov 1994 25:49:47 GMT",
                                   "sun, 06 nov 1994 08:49:47 gmt"}) {
        EXPECT_EQ(Upkeep::delayOf(text, at), seconds(0)) << text;
    }
}

TEST(TheUuidOfALocation, IsItsLastSegment) {
    EXPECT_EQ(Upkeep::uuidOf("/abc"), "abc");
    EXPECT_EQ(Upkeep::uuidOf("http://host/entries/abc"), "abc");
    EXPECT_EQ(Upkeep::uuidOf("/entries/abc/"), "abc");
    EXPECT_EQ(Upkeep::uuidOf("abc"), "");
    EXPECT_EQ(Upkeep::uuidOf("//registry:8500/"), "");
    EXPECT_EQ(Upkeep::uuidOf("//registry:8500"), "");
    EXPECT_EQ(Upkeep::uuidOf("//registry:8500/abc"), "abc");
    EXPECT_EQ(Upkeep::uuidOf("entries//abc"), "abc");
    EXPECT_EQ(Upkeep::uuidOf("abc/"), "abc");
    EXPECT_EQ(Upkeep::uuidOf("/"), "");
    EXPECT_EQ(Upkeep::uuidOf("//"), "");
    EXPECT_EQ(Upkeep::uuidOf(""), "");
}

TEST(TheUuidOfALocation, IsNotItsHost) {
    EXPECT_EQ(Upkeep::uuidOf("http://registry:8500/"), "");
    EXPECT_EQ(Upkeep::uuidOf("http://registry:8500"), "");
    EXPECT_EQ(Upkeep::uuidOf("https://registry//"), "");
    EXPECT_EQ(Upkeep::uuidOf("http://"), "");
    EXPECT_EQ(Upkeep::uuidOf("http://registry/abc/"), "abc");
    EXPECT_EQ(Upkeep::uuidOf("/http://abc"), "abc");
}

}  // namespace
}  // namespace orvx::serviceregistryclient
