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
    static void answer(ITap& tap) { tap.sentByServer("HTTP/1.1 200 OK\r\n\r\n"); }
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

}  // namespace
}  // namespace orvx::stress
