// The counters of a communication context.

#include <gtest/gtest.h>
#include <orvx/communication/ClientStatistics.h>

#include <thread>
#include <vector>

namespace orvx::communication {
namespace {

using std::chrono::nanoseconds;
using ByStatus = std::map<CommunicationStatus, std::uint64_t>;

TEST(TheClientStatistics, AreEmptyAtFirst) {
    const auto counted = ClientStatistics().snapshot();
    EXPECT_EQ(counted.completed, 0U);
    EXPECT_EQ(counted.byStatus, ByStatus{});
    EXPECT_EQ(counted.totalLatency, nanoseconds(0));
    EXPECT_EQ(counted.longestLatency, nanoseconds(0));
}

TEST(TheClientStatistics, CountRequestsByTheWayTheyEnded) {
    ClientStatistics statistics;
    for (auto status : {CommunicationStatus::Ok, CommunicationStatus::TimedOut,
                        CommunicationStatus::Ok, CommunicationStatus::Other}) {
        statistics.record(status, nanoseconds(1));
    }
    const auto counted = statistics.snapshot();
    EXPECT_EQ(counted.completed, 4U);
    EXPECT_EQ(counted.byStatus, (ByStatus{{CommunicationStatus::Ok, 2},
                                          {CommunicationStatus::TimedOut, 1},
                                          {CommunicationStatus::Other, 1}}));
}

TEST(TheClientStatistics, MeasureTheLatencyOfAnsweredRequestsOnly) {
    ClientStatistics statistics;
    statistics.record(CommunicationStatus::Ok, nanoseconds(30));
    statistics.record(CommunicationStatus::TimedOut, nanoseconds(1000));
    statistics.record(CommunicationStatus::Ok, nanoseconds(50));
    statistics.record(CommunicationStatus::Ok, nanoseconds(20));
    EXPECT_EQ(statistics.snapshot().totalLatency, nanoseconds(100));
    EXPECT_EQ(statistics.snapshot().longestLatency, nanoseconds(50));
}

TEST(TheClientStatistics, HandOutCopies) {
    ClientStatistics statistics;
    const auto before = statistics.snapshot();
    statistics.record(CommunicationStatus::Ok, nanoseconds(1));
    EXPECT_EQ(before.completed, 0U);
}

TEST(TheClientStatistics, LoseNothingThatSeveralThreadsRecord) {
    ClientStatistics statistics;
    std::vector<std::thread> threads;
    for (auto status : {CommunicationStatus::Ok, CommunicationStatus::Ok,
                        CommunicationStatus::Other, CommunicationStatus::Abandoned}) {
        threads.emplace_back([&statistics, status] {
            for (int i = 0; i < 1000; ++i) {
                statistics.record(status, nanoseconds(2));
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

}  // namespace
}  // namespace orvx::communication
