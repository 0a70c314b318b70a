// Reads information about this process from the system.
//
// Threads: any. No locks.

#include "Process.h"

#include "RunningThreads.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace orvx::testing {

std::vector<std::string> threadNames() {
    std::vector<std::string> names = runningThreads();
    std::sort(names.begin(), names.end());
    return names;
}

std::uint64_t sleepsOf(const std::string& threadName) {
    constexpr const char* kKey = "voluntary_ctxt_switches:";
    std::uint64_t sleeps = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(thread.path() / "status");
        bool isWanted = false;
        for (std::string line; std::getline(file, line);) {
            isWanted = isWanted || line == "Name:\t" + threadName;
            if (isWanted && line.rfind(kKey, 0) == 0) {
                sleeps += std::stoull(line.substr(std::strlen(kKey)));
            }
        }
    }
    return sleeps;
}

// Each line contains the remote address and then the state: 2 for a SYN that was sent.
bool isConnecting(std::uint16_t port) {
    char wanted[32];
    std::snprintf(wanted, sizeof wanted, " 0100007F:%04X 02 ", static_cast<unsigned>(port));
    std::ifstream file("/proc/self/net/tcp");
    for (std::string line; std::getline(file, line);) {
        if (line.find(wanted) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace orvx::testing
