#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvx::testing {

/// The names of this process's threads, sorted, without those that have been joined.
std::vector<std::string> threadNames();

/// The number of times that the threads with this name have gone to sleep.
std::uint64_t sleepsOf(const std::string& threadName);

/// Whether a connect to this port of 127.0.0.1 was started and is not answered.
bool isConnecting(std::uint16_t port);

}  // namespace orvx::testing
