#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace orvx::testing {

/// The names of this process's threads. A thread that has been joined may be listed for a moment
/// longer; it is left out.
inline std::vector<std::string> runningThreads() {
    constexpr unsigned long kExiting = 4;  // the kernel sets it before it lets a join return
    std::vector<std::string> names;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(thread.path() / "stat");
        const std::string stat{std::istreambuf_iterator<char>(file), {}};  // "1 (name) S 2 ..."
        const auto begin = stat.find('(') + 1;
        const auto end = stat.rfind(')');
        if (end == std::string::npos) {
            continue;  // it has ended meanwhile
        }
        std::istringstream rest(stat.substr(end + 1));
        std::string ignored;
        for (int field = 3; field < 9; ++field) {
            rest >> ignored;
        }
        unsigned long flags = kExiting;
        rest >> flags;
        if ((flags & kExiting) == 0) {
            names.push_back(stat.substr(begin, end - begin));
        }
    }
    return names;
}

}  // namespace orvx::testing
