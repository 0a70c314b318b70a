#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace orvx::testing {

/// Polls a condition that no event signals. Returns false if it does not hold within thirty
/// seconds.
inline bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace orvx::testing
