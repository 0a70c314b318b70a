// How a mark recognises a child, in whatever way the child was made, and how often it calls the
// kernel.

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

/// Replaces the system library's function in this program.
extern "C" pid_t getpid() noexcept {
    ++questions;
    return static_cast<pid_t>(::syscall(SYS_getpid));
}

namespace orvx::utility {
namespace {

pid_t cloneWithoutTheSystemLibrary() {
    return static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

/// Whether `work` returns true in a child that is made in this way.
bool isTrueInChild(const std::function<pid_t()>& make, const std::function<bool()>& work) {
    const pid_t child = make();
    if (child == 0) {
        ::_exit(work() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

/// Whether the marks of a process, its child and the child's child are correct.
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

// Each request once made another call.
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
