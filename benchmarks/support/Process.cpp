// Reads information about this process from the kernel and the allocator. One thread, no lock.

#include "Process.h"

#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace orvx::benchmarks {

namespace {

using std::filesystem::directory_iterator;

constexpr const char* kTasks = "/proc/self/task";

std::uint64_t sleepsOf(const std::filesystem::path& task) {
    std::ifstream status(task / "status");
    constexpr std::string_view kKey = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, kKey.size(), kKey) == 0) {
            return std::stoull(line.substr(kKey.size()));
        }
    }
    return 0;
}

}  // namespace

std::size_t threads() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& task : directory_iterator(kTasks)) {
        ++count;
    }
    return count;
}

std::uint64_t sleepsOfOtherThreads() {
    const std::string self = std::to_string(::syscall(SYS_gettid));
    std::uint64_t sleeps = 0;
    for (const auto& task : directory_iterator(kTasks)) {
        sleeps += task.path().filename() == self ? 0 : sleepsOf(task.path());
    }
    return sleeps;
}

std::size_t heapInUse() {
    ::malloc_trim(0);
    const auto info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace orvx::benchmarks
