// The program's event loop. Entered by the test's thread. No lock.
#include "EventLoop.h"

#include <gtest/gtest.h>

#include <chrono>

namespace orvx::announce {
namespace {

TEST(AnEventLoop, RunsATimerThatIsAlwaysDueOnceATurn) {
    constexpr int tooOften = 1000;
    EventLoop loop;
    int runs = 0;
    const EventLoop::Task again = [&] {
        loop.after(-std::chrono::hours(1), again);
        if (++runs == tooOften) {
            loop.stop();
        }
    };
    again();
    loop.post([&loop] { loop.stop(); });
    loop.run();
    EXPECT_EQ(runs, 2);
}

}  // namespace
}  // namespace orvx::announce
