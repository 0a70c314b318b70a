#pragma once

#include <string>
#include <utility>
#include <vector>

namespace orvx::announce {

/// Whether each of these hosts and ports takes a connection and, unless `path` is empty, answers a
/// GET of it with 200 to 399. Blocks; to be called in a process of its own, which an alarm ends
/// when it takes too long.
bool answer(const std::vector<std::pair<std::string, std::string>>& addresses,
            const std::string& path);

}  // namespace orvx::announce
