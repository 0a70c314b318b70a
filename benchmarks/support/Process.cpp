// What the kernel and the allocator say of this process.
// One thread, no lock.

#include "Process.h"

#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace orvx::benchmarks {

namespace {

using std::filesystem::directory_iterator;

constexpr const char* kTasks = "/proc/self/task";

std::uint64_t switchesOf(const std::filesystem::path& task) {
    std::ifstream status(task / "status");
    std::uint64_t switches = 0;
    for (std::string line; std::getline(status, line);) {
        if (line.find("ctxt_switches:") != std::string::npos) {
            switches += std::stoull(line.substr(line.find(':') + 1));
        }
    }
    return switches;
}

}  // namespace

std::size_t threads() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& task : directory_iterator(kTasks)) {
        ++count;
    }
    return count;
}

std::uint64_t switchesOfOtherThreads() {
    const std::string self = std::to_string(::syscall(SYS_gettid));
    std::uint64_t switches = 0;
    for (const auto& task : directory_iterator(kTasks)) {
        switches += task.path().filename() == self ? 0 : switchesOf(task.path());
    }
    return switches;
}

std::size_t heapInUse() {
    ::malloc_trim(0);
    const auto info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace orvx::benchmarks
