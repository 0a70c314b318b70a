// Watches a child process through a pipe: a byte when it reports, another when its call returns,
// the end of the pipe when the process ends. Entered by the test's thread only.
#include "ChildProcess.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <exception>

namespace orvx::testing {

namespace {

constexpr int kPatienceMilliseconds = 10000;
/// The time for which the child is watched after its report.
constexpr int kWatchMilliseconds = 300;
constexpr char kReported = 'w';
constexpr char kReturned = 'r';

void say(int pipe, char what) {
    if (write(pipe, &what, 1) != 1) {
        _exit(1);
    }
}

[[noreturn]] void runChild(const std::function<void(const Report&)>& call, int pipe) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        call([pipe] { say(pipe, kReported); });
        say(pipe, kReturned);
    } catch (const std::exception&) {
    }
    _exit(0);
}

/// Reads a byte from the pipe within the time. Returns 0 at the end of the pipe, and -1 if nothing
/// arrives.
int readWithin(int pipe, int milliseconds) {
    pollfd wanted{pipe, POLLIN, 0};
    if (poll(&wanted, 1, milliseconds) != 1) {
        return -1;
    }
    char byte = 0;
    return read(pipe, &byte, 1) == 1 ? byte : 0;
}

}  // namespace

::testing::AssertionResult neverReturns(const std::function<void(const Report&)>& call) {
    std::array<int, 2> pipes{};
    if (pipe(pipes.data()) != 0) {
        return ::testing::AssertionFailure() << "no pipe";
    }
    const pid_t child = fork();
    if (child == 0) {
        close(pipes[0]);
        runChild(call, pipes[1]);
    }
    close(pipes[1]);
    const int first = child > 0 ? readWithin(pipes[0], kPatienceMilliseconds) : 0;
    const int second = first == kReported ? readWithin(pipes[0], kWatchMilliseconds) : 0;
    close(pipes[0]);
    if (child > 0) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    if (first != kReported) {
        return ::testing::AssertionFailure() << "the child did not get as far as it was to";
    }
    return second == -1 ? ::testing::AssertionSuccess()
                        : ::testing::AssertionFailure()
                              << (second == kReturned ? "the call returned" : "the child ended");
}

}  // namespace orvx::testing
