// Reads information about the threads of this process from the system.

#include "Support.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace orvx::utility::test {

namespace {

/// Without SIGKILL and SIGSTOP, and without the two real-time signals that the C library reserves.
bool canBeBlocked(int signal) {
    return signal != SIGKILL && signal != SIGSTOP && (signal < 32 || signal >= SIGRTMIN);
}

}  // namespace

std::size_t threadsNamed(const std::string& name) {
    std::size_t count = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string shown;
        std::getline(std::ifstream(thread.path() / "comm"), shown);
        count += shown == name ? 1 : 0;
    }
    return count;
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
