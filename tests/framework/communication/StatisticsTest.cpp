// The counters of a communication context.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <orvx/communication/ClientStatistics.h>

#include <string>
#include <thread>
#include <vector>

namespace orvx::communication {
namespace {

using std::chrono::nanoseconds;
using std::chrono::system_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using Method = ClientStatistics::Method;

class TheClientStatistics : public ::testing::Test {
  protected:
    void record(CommunicationStatus status, nanoseconds latency = nanoseconds(1)) {
        statistics.record({Method::Put, status, 0, latency});
    }
    void answer(Method method, int httpStatus, std::uint64_t repeated = 0) {
        statistics.record({method, CommunicationStatus::Ok, httpStatus, nanoseconds(1), repeated});
    }
    ClientStatistics::OfMethod of(Method method) const {
        return statistics.snapshot().byMethod.at(method);
    }

    ClientStatistics statistics;
};

TEST_F(TheClientStatistics, AreEmptyAtFirst) {
    const auto counted = statistics.snapshot();
    EXPECT_EQ(counted.completed, 0U);
    EXPECT_THAT(counted.byStatus, IsEmpty());
    EXPECT_EQ(counted.totalLatency, nanoseconds(0));
    EXPECT_EQ(counted.longestLatency, nanoseconds(0));
    for (const Method method : {Method::Put, Method::Head, Method::Delete}) {
        EXPECT_EQ(of(method).completed, 0U);
        EXPECT_THAT(of(method).byStatus, IsEmpty());
        EXPECT_THAT(of(method).byHttpStatus, IsEmpty());
        EXPECT_EQ(of(method).repeated, 0U);
        EXPECT_FALSE(of(method).last);
        EXPECT_FALSE(of(method).lastGood);
    }
}

TEST_F(TheClientStatistics, CountRequestsByTheWayTheyEnded) {
    for (auto status : {CommunicationStatus::Ok, CommunicationStatus::TimedOut,
                        CommunicationStatus::Ok, CommunicationStatus::Other}) {
        record(status);
    }
    answer(Method::Head, 200);
    EXPECT_EQ(statistics.snapshot().completed, 5U);
    EXPECT_THAT(statistics.snapshot().byStatus, ElementsAre(Pair(CommunicationStatus::Ok, 3),
                                                            Pair(CommunicationStatus::TimedOut, 1),
                                                            Pair(CommunicationStatus::Other, 1)));
    EXPECT_EQ(of(Method::Put).completed, 4U);
    EXPECT_THAT(of(Method::Put).byStatus, ElementsAre(Pair(CommunicationStatus::Ok, 2),
                                                      Pair(CommunicationStatus::TimedOut, 1),
                                                      Pair(CommunicationStatus::Other, 1)));
}

TEST_F(TheClientStatistics, CountAnswersByTheirMethodAndStatusCode) {
    for (const int httpStatus : {201, 200, 201, 503}) {
        answer(Method::Put, httpStatus);
    }
    answer(Method::Delete, 404);
    record(CommunicationStatus::TimedOut);
    EXPECT_THAT(of(Method::Put).byHttpStatus,
                ElementsAre(Pair(200, 1), Pair(201, 2), Pair(503, 1)));
    EXPECT_THAT(of(Method::Head).byHttpStatus, IsEmpty());
    EXPECT_THAT(of(Method::Delete).byHttpStatus, ElementsAre(Pair(404, 1)));
}

TEST_F(TheClientStatistics, KnowTheLastOutcomeOfEachMethodAndWhenItWas) {
    const auto before = system_clock::now();
    answer(Method::Head, 404);
    record(CommunicationStatus::ConnectFailed);
    const auto head = of(Method::Head).last;
    EXPECT_EQ(head->status, CommunicationStatus::Ok);
    EXPECT_EQ(head->httpStatus, 404);
    EXPECT_GE(head->when, before);
    EXPECT_LE(head->when, system_clock::now());
    EXPECT_EQ(of(Method::Put).last->status, CommunicationStatus::ConnectFailed);
    EXPECT_EQ(of(Method::Put).last->httpStatus, 0);
    EXPECT_GE(of(Method::Put).last->when, head->when);
}

TEST_F(TheClientStatistics, KnowWhenTheLastGoodAnswerCame) {
    for (const int httpStatus : {199, 300, 404, 500}) {
        answer(Method::Head, httpStatus);
        EXPECT_FALSE(of(Method::Head).lastGood) << httpStatus;
    }
    for (const int httpStatus : {200, 204, 299}) {
        answer(Method::Head, httpStatus);
        EXPECT_EQ(of(Method::Head).lastGood, of(Method::Head).last->when) << httpStatus;
    }
    const auto lastGood = of(Method::Head).lastGood;
    answer(Method::Head, 500);
    EXPECT_EQ(of(Method::Head).lastGood, lastGood);
    EXPECT_FALSE(of(Method::Put).lastGood);
}

TEST_F(TheClientStatistics, CountAttemptsBeyondTheFirst) {
    answer(Method::Put, 200, 2);
    answer(Method::Put, 200);
    answer(Method::Put, 200, 1);
    EXPECT_EQ(of(Method::Put).repeated, 3U);
    EXPECT_EQ(of(Method::Head).repeated, 0U);
}

TEST_F(TheClientStatistics, MeasureTheLatencyOfAnsweredRequestsOnly) {
    record(CommunicationStatus::Ok, nanoseconds(30));
    record(CommunicationStatus::TimedOut, nanoseconds(1000));
    record(CommunicationStatus::Ok, nanoseconds(50));
    record(CommunicationStatus::Ok, nanoseconds(20));
    EXPECT_EQ(statistics.snapshot().totalLatency, nanoseconds(100));
    EXPECT_EQ(statistics.snapshot().longestLatency, nanoseconds(50));
}

TEST_F(TheClientStatistics, HandOutCopies) {
    const auto before = statistics.snapshot();
    record(CommunicationStatus::Ok);
    EXPECT_EQ(before.completed, 0U);
    EXPECT_EQ(before.byMethod.at(Method::Put).completed, 0U);
}

TEST_F(TheClientStatistics, LoseNothingThatSeveralThreadsRecord) {
    std::vector<std::thread> threads;
    for (auto status : {CommunicationStatus::Ok, CommunicationStatus::Ok,
                        CommunicationStatus::Other, CommunicationStatus::Abandoned}) {
        threads.emplace_back([this, status] {
            for (int i = 0; i < 1000; ++i) {
                record(status, nanoseconds(2));
                EXPECT_GT(statistics.snapshot().completed, 0U);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto counted = statistics.snapshot();
    EXPECT_EQ(counted.completed, 4000U);
    EXPECT_EQ(counted.byStatus.at(CommunicationStatus::Ok), 2000U);
    EXPECT_EQ(counted.totalLatency, nanoseconds(4000));
}

TEST(TheMethods, HaveTheirNamesOfHttp) {
    EXPECT_EQ(methodToString(Method::Put), std::string("PUT"));
    EXPECT_EQ(methodToString(Method::Head), std::string("HEAD"));
    EXPECT_EQ(methodToString(Method::Delete), std::string("DELETE"));
}

}  // namespace
}  // namespace orvx::communication
