// Reads information about the threads of this process from the system.

#include "Support.h"

#include "RunningThreads.h"

#include <algorithm>
#include <csignal>

namespace orvx::utility::test {

namespace {

/// Without SIGKILL and SIGSTOP, and without the two real-time signals that the C library reserves.
bool canBeBlocked(int signal) {
    return signal != SIGKILL && signal != SIGSTOP && (signal < 32 || signal >= SIGRTMIN);
}

}  // namespace

std::size_t threadsNamed(const std::string& name) {
    const auto names = testing::runningThreads();
    return static_cast<std::size_t>(std::count(names.begin(), names.end(), name));
}

std::vector<int> openSignals() {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    std::vector<int> open;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        if (canBeBlocked(signal) && sigismember(&blocked, signal) != 1) {
            open.push_back(signal);
        }
    }
    return open;
}

}  // namespace orvx::utility::test
