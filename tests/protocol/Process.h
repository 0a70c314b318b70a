#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvx::testing {

/// The names of this process's threads, in order.
std::vector<std::string> threadNames();

/// How often the threads of that name have gone to sleep.
std::uint64_t sleepsOf(const std::string& threadName);

/// Whether a connect to the port of 127.0.0.1 has begun and is not answered.
bool isConnecting(std::uint16_t port);

}  // namespace orvx::testing
