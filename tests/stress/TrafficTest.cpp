// What the taps of a connection notice, in times of the test's own.
//
// Threads: the test's only.

#include "Traffic.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>

namespace orvx::stress {
namespace {

using std::chrono::milliseconds;

const std::string kUuid = "0c5c4e6e-4d4e-4b62-8c0b-8f7b2a0a1c11";

class TheTraffic : public ::testing::Test {
  protected:
    std::unique_ptr<ITap> connection() { return traffic.tapMaker()(); }
    static void check(ITap& tap) {
        tap.sentByClient("HEAD /" + kUuid + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    }
    /// Announces the entry at the path.
    static void put(ITap& tap, const std::string& path) {
        tap.sentByClient("PUT " + path +
                         " HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n");
        tap.sentByServer("HTTP/1.1 201 Created\r\nLoca");
        tap.sentByServer("tion: /" + kUuid + "\r\nContent-Length: 0\r\n\r\n");
    }
    static void answer(ITap& tap) { tap.sentByServer("HTTP/1.1 200 OK\r\n\r\n"); }
    void checkTimes(ITap& tap, int count) {
        for (int i = 0; i < count; ++i) {
            check(tap);
            pass(10);
            answer(tap);
        }
    }
    void pass(int count) { now += milliseconds(count); }

    Traffic::Time now{std::chrono::seconds(1000)};
    Traffic traffic{[this] { return now; }};
};

TEST_F(TheTraffic, KnowsTheLongestTimeToTheAnswerToACheck) {
    const auto tap = connection();
    for (const int duration : {20, 50, 30}) {
        check(*tap);
        pass(duration);
        answer(*tap);
        pass(1000);
    }
    EXPECT_EQ(traffic.longestCheck(now - milliseconds(10'000)), milliseconds(50));
}

TEST_F(TheTraffic, ForgetsTheChecksThatWereAnsweredBefore) {
    const auto tap = connection();
    check(*tap);
    pass(50);
    answer(*tap);
    pass(10);
    const Traffic::Time begin = now;
    check(*tap);
    pass(20);
    answer(*tap);
    EXPECT_EQ(traffic.longestCheck(begin), milliseconds(20));
}

TEST_F(TheTraffic, CountsACheckThatBeganBefore) {
    const auto tap = connection();
    check(*tap);
    pass(50);
    const Traffic::Time begin = now;
    pass(10);
    answer(*tap);
    EXPECT_EQ(traffic.longestCheck(begin), milliseconds(60));
}

TEST_F(TheTraffic, CountsACheckWithoutAnAnswer) {
    const auto tap = connection();
    check(*tap);
    pass(400);
    EXPECT_EQ(traffic.longestCheck(now), milliseconds(400));
}

TEST_F(TheTraffic, CountsACheckWhoseConnectionEnds) {
    auto tap = connection();
    check(*tap);
    pass(70);
    tap.reset();
    pass(10);
    EXPECT_EQ(traffic.longestCheck(now - milliseconds(20)), milliseconds(70));
    EXPECT_EQ(traffic.longestCheck(now), milliseconds(0));
}

TEST_F(TheTraffic, AllowsTwoChecksInASecondAndAThirdAfterARecovery) {
    const auto tap = connection();
    put(*tap, "/kept7");
    pass(2000);
    checkTimes(*tap, 3);
    EXPECT_EQ(traffic.checksAndRecoveries().tooMany, 0U);
    EXPECT_EQ(traffic.checks().tooMany, 1U);
    checkTimes(*tap, 1);
    EXPECT_EQ(traffic.checksAndRecoveries().tooMany, 1U);
    EXPECT_EQ(traffic.checksAndRecoveries().most, 4U);
}

TEST_F(TheTraffic, AllowsACheckMoreForEachStartOfTheClient) {
    const auto tap = connection();
    put(*tap, "/kept7");
    pass(2000);
    traffic.expectChecks("/kept");
    traffic.expectChecks("/kept");
    traffic.expectChecks("/hasty");
    pass(1000);
    checkTimes(*tap, 5);
    EXPECT_EQ(traffic.checksAndRecoveries().tooMany, 0U);
    checkTimes(*tap, 1);
    EXPECT_EQ(traffic.checksAndRecoveries().tooMany, 1U);
}

TEST_F(TheTraffic, AllowsNoCheckForAStartLongBefore) {
    const auto tap = connection();
    put(*tap, "/kept7");
    traffic.expectChecks("/kept");
    pass(2000);
    checkTimes(*tap, 4);
    EXPECT_EQ(traffic.checksAndRecoveries().tooMany, 1U);
}

TEST_F(TheTraffic, AllowsACheckMoreAfterPuts) {
    const auto tap = connection();
    put(*tap, "/kept7");
    put(*tap, "/kept7");
    pass(1000);
    checkTimes(*tap, 4);
    EXPECT_EQ(traffic.checksAndRecoveries().tooMany, 0U);
    checkTimes(*tap, 1);
    EXPECT_EQ(traffic.checksAndRecoveries().tooMany, 1U);
}

}  // namespace
}  // namespace orvx::stress
