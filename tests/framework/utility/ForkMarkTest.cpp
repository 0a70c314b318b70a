// How a mark knows a child, however that was made, and how often it asks the kernel.

#include <orvx/utility/ForkMark.h>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>

namespace {

std::atomic<int> questions{0};

}  // namespace

/// Stands for the system library's in this program.
extern "C" pid_t getpid() noexcept {
    ++questions;
    return static_cast<pid_t>(::syscall(SYS_getpid));
}

namespace orvx::utility {
namespace {

pid_t cloneWithoutTheSystemLibrary() {
    return static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

/// Whether a child that is made so returns true from `work`.
bool isTrueInChild(const std::function<pid_t()>& make, const std::function<bool()>& work) {
    const pid_t child = make();
    if (child == 0) {
        ::_exit(work() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

/// Whether a child, its child and their own marks know where they belong.
bool isKnownInTwoGenerations(const std::function<pid_t()>& make) {
    const ForkMark mark;
    return isTrueInChild(make, [&] {
        ForkMark own;
        const bool isKnown = mark.isInForkedChild() && !own.isInForkedChild();
        return isKnown && isTrueInChild(make, [&] {
                   const bool isInForkedChild = mark.isInForkedChild() && own.isInForkedChild();
                   own.set();
                   return isInForkedChild && !own.isInForkedChild();
               });
    });
}

TEST(AForkMark, KnowsAChildAndTheChildsChild) {
    EXPECT_TRUE(isKnownInTwoGenerations([] { return ::fork(); }));
}

TEST(AForkMark, KnowsAChildThatWasMadeWithoutTheHandlersOfAFork) {
    EXPECT_TRUE(isKnownInTwoGenerations([] { return ::_Fork(); }));
    EXPECT_TRUE(isKnownInTwoGenerations(cloneWithoutTheSystemLibrary));
}

TEST(AForkMark, ReportsNoForkedChildInTheProcessThatForked) {
    const ForkMark mark;
    EXPECT_TRUE(isTrueInChild([] { return ::fork(); }, [] { return true; }));
    EXPECT_FALSE(mark.isInForkedChild());
}

// Each request that was submitted asked once more.
TEST(AForkMark, DoesNotAskTheKernelEachTime) {
    const ForkMark mark;
    const int before = questions;
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(mark.isInForkedChild());
    }
    EXPECT_EQ(questions, before);
}

}  // namespace
}  // namespace orvx::utility
