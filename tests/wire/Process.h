#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orvx::testing {

/// The names of this process's threads, in order.
std::vector<std::string> threadNames();

/// Whether a connect to the port of 127.0.0.1 has begun and is not answered.
bool isConnecting(std::uint16_t port);

}  // namespace orvx::testing
