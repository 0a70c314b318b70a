// Counts consecutive requests without an answer.

#include <gtest/gtest.h>
#include <orvx/communication/HealthCheck.h>

#include <thread>
#include <vector>

namespace orvx::communication {
namespace {

TEST(TheHealthCheck, IsHealthyAtFirst) {
    const HealthCheck healthCheck;
    EXPECT_EQ(healthCheck.consecutiveFailures(), 0U);
}

TEST(TheHealthCheck, CountsRequestsWithoutAnAnswer) {
    HealthCheck healthCheck;
    healthCheck.record(CommunicationStatus::TimedOut);
    healthCheck.record(CommunicationStatus::TimedOut);
    EXPECT_EQ(healthCheck.consecutiveFailures(), 2U);
}

TEST(TheHealthCheck, IsHealthyAgainWithTheNextAnswer) {
    HealthCheck healthCheck;
    healthCheck.record(CommunicationStatus::TimedOut);
    healthCheck.record(CommunicationStatus::Ok);
    EXPECT_EQ(healthCheck.consecutiveFailures(), 0U);
    healthCheck.record(CommunicationStatus::TimedOut);
    EXPECT_EQ(healthCheck.consecutiveFailures(), 1U);
}

TEST(TheHealthCheck, IgnoresOutcomesThatSayNothingAboutTheServer) {
    HealthCheck healthCheck;
    healthCheck.record(CommunicationStatus::TimedOut);
    healthCheck.record(CommunicationStatus::InvalidRequest);
    healthCheck.record(CommunicationStatus::NoSession);
    healthCheck.record(CommunicationStatus::Abandoned);
    EXPECT_EQ(healthCheck.consecutiveFailures(), 1U);
}

TEST(TheHealthCheck, LosesNothingThatSeveralThreadsRecord) {
    HealthCheck healthCheck;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&healthCheck] {
            for (int n = 0; n < 1000; ++n) {
                healthCheck.record(CommunicationStatus::TimedOut);
                EXPECT_NE(healthCheck.consecutiveFailures(), 0U);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(healthCheck.consecutiveFailures(), 4000U);
}

}  // namespace
}  // namespace orvx::communication
