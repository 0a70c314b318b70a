// A timer that gets no memory for a task.
#include "Memory.h"

#include <orvx/utility/QueuedTimer.h>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <new>
#include <optional>
#include <utility>

namespace orvx::utility {
namespace {

using namespace std::chrono_literals;
using testing::Memory;

class ATimerOutOfMemory : public ::testing::Test {
  protected:
    ATimerOutOfMemory() {
        timer_.start("timer");
        timer_.addTask(2h, [] {});
    }
    /// Adds tasks until one cannot be taken. Returns whether the timer's lock was free when this
    /// task was destroyed.
    bool isUnlockedForARefusedTask(std::chrono::milliseconds delay) {
        for (isUnlocked_.reset(); !isUnlocked_;) {
            QueuedTimer::Task task = [token = probe()] {};
            const Memory::CountedIn countedIn;
            Memory::failAfter(0, 1);
            try {
                isAdding_ = true;
                timer_.addTask(delay, std::move(task));
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(isUnlocked_);
            }
            isAdding_ = false;
            Memory::recover();
        }
        return *isUnlocked_;
    }

  private:
    /// Its destruction inside addTask() asks on another thread for the lock.
    std::shared_ptr<void> probe() {
        return {nullptr, [this](void*) {
                    if (isAdding_) {
                        const Memory::Exempt exempt;
                        asked_ =
                            std::async(std::launch::async, [this] { return timer_.isRunning(); });
                        isUnlocked_ = asked_.wait_for(1s) == std::future_status::ready;
                    }
                }};
    }

    bool isAdding_ = false;
    std::optional<bool> isUnlocked_;
    std::future<bool> asked_;
    QueuedTimer timer_;
};

TEST_F(ATimerOutOfMemory, DestroysATaskThatItCannotTakeWithoutItsLock) {
    EXPECT_TRUE(isUnlockedForARefusedTask(1h)) << "due before another task";
    EXPECT_TRUE(isUnlockedForARefusedTask(3h)) << "due after all other tasks";
}

}  // namespace
}  // namespace orvx::utility
