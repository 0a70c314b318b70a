// Tests the rate of an address, and how many addresses the registry remembers.
// Everything runs on the test's thread, which also sets the clock.
// There is no lock.

#include "RateLimiter.h"

#include <gmock/gmock.h>

#include <boost/asio/ip/address_v6.hpp>
#include <string>

namespace orvx::registry {
namespace {

using namespace std::chrono_literals;
using boost::asio::ip::make_address;
using ::testing::Optional;

class TheRate : public ::testing::Test {
  protected:
    int countAdmitted(const std::string& address, int tries) {
        int admitted = 0;
        for (; tries > 0; --tries) {
            admitted += limiter_.refuse(make_address(address), now_) ? 0 : 1;
        }
        return admitted;
    }

    RateLimiter::Time now_{};
    RateLimiter limiter_{2};
};

TEST_F(TheRate, AdmitsTenSecondsWorthAtOnceAndThenTheRate) {
    EXPECT_EQ(countAdmitted("10.0.0.1", 100), 20);
    now_ += 3s;
    EXPECT_EQ(countAdmitted("10.0.0.1", 100), 6);
    now_ += 1h;
    EXPECT_EQ(countAdmitted("10.0.0.1", 100), 20);
}

TEST_F(TheRate, SaysAfterHowLongOneMoreIsAdmitted) {
    countAdmitted("10.0.0.1", 20);
    EXPECT_THAT(limiter_.refuse(make_address("10.0.0.1"), now_), Optional(1s));
    now_ += 499ms;
    EXPECT_THAT(limiter_.refuse(make_address("10.0.0.1"), now_), Optional(1s));
    now_ += 1ms;
    EXPECT_FALSE(limiter_.refuse(make_address("10.0.0.1"), now_));
}

TEST_F(TheRate, IsCountedForEachAddress) {
    countAdmitted("10.0.0.1", 100);
    EXPECT_EQ(countAdmitted("10.0.0.2", 100), 20);
    EXPECT_EQ(countAdmitted("::ffff:10.0.0.2", 100), 0);
}

TEST_F(TheRate, IsCountedForEachNetworkOfVersionSix) {
    countAdmitted("2001:db8::1", 100);
    EXPECT_EQ(countAdmitted("2001:db8::ffff:2", 100), 0);
    EXPECT_EQ(countAdmitted("2001:db8:0:1::1", 100), 20);
}

TEST_F(TheRate, RemembersABoundedNumberOfAddresses) {
    countAdmitted("10.0.0.1", 100);
    for (unsigned i = 0; i < 2 * RateLimiter::kMaxAddresses; ++i) {
        limiter_.refuse(boost::asio::ip::address_v4(0x0b000000U + i), now_);
        if (i == RateLimiter::kMaxAddresses / 2) {
            EXPECT_EQ(countAdmitted("10.0.0.1", 1), 0);  // the address was active recently
        }
    }
    EXPECT_EQ(limiter_.size(), RateLimiter::kMaxAddresses);
    EXPECT_EQ(countAdmitted("10.0.0.1", 100), 20);
}

TEST_F(TheRate, IsUnlimitedWhenItIsZero) {
    RateLimiter none(0);
    for (int i = 0; i < 1'000; ++i) {
        EXPECT_FALSE(none.refuse(make_address("10.0.0.1"), now_));
    }
    EXPECT_EQ(none.size(), 0U);
}

}  // namespace
}  // namespace orvx::registry
