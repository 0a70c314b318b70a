// Whether servers answer at all.

#include <gtest/gtest.h>
#include <orvx/communication/HealthCheck.h>

#include <thread>
#include <vector>

namespace orvx::communication {
namespace {

TEST(TheHealthCheck, IsHealthyAtFirst) {
    const HealthCheck healthCheck;
    EXPECT_TRUE(healthCheck.isHealthy());
    EXPECT_EQ(healthCheck.consecutiveFailures(), 0U);
}

TEST(TheHealthCheck, CountsRequestsWithoutAnAnswer) {
    HealthCheck healthCheck;
    healthCheck.record(false);
    healthCheck.record(false);
    EXPECT_FALSE(healthCheck.isHealthy());
    EXPECT_EQ(healthCheck.consecutiveFailures(), 2U);
}

TEST(TheHealthCheck, IsHealthyAgainWithTheNextAnswer) {
    HealthCheck healthCheck;
    healthCheck.record(false);
    healthCheck.record(true);
    EXPECT_TRUE(healthCheck.isHealthy());
    healthCheck.record(false);
    EXPECT_EQ(healthCheck.consecutiveFailures(), 1U);
}

TEST(TheHealthCheck, LosesNothingThatSeveralThreadsRecord) {
    HealthCheck healthCheck;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&healthCheck] {
            for (int n = 0; n < 1000; ++n) {
                healthCheck.record(false);
                EXPECT_FALSE(healthCheck.isHealthy());
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
