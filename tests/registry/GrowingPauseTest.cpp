// The pauses between repeated attempts. Everything runs on the test's thread; there is no lock.

#include "GrowingPause.h"

#include <gtest/gtest.h>

namespace orvx::registry {
namespace {

TEST(AGrowingPause, DoublesUpToAMinuteAndBeginsAnewAfterASuccess) {
    GrowingPause pause;
    for (const int seconds : {1, 2, 4, 8, 16, 32, 60, 60}) {
        EXPECT_EQ(pause.next(), std::chrono::seconds(seconds));
    }
    pause.reset();
    EXPECT_EQ(pause.next(), std::chrono::seconds(1));
}

}  // namespace
}  // namespace orvx::registry
