#pragma once

#include "OrvServiceRegistryClient.h"

#include <chrono>
#include <new>
#include <thread>

namespace orvx::serviceregistryclient {

/// Runs a step of the library's threads, and repeats it after a pause as long as it throws
/// std::bad_alloc and the client is not stopped; then the exception leaves. Must be called without
/// the lock. The step must be idempotent: when it throws, it has changed nothing, or only values
/// that a repetition sets again.
template <typename Step>
void OrvServiceRegistryClient::retryOnBadAlloc(const Step& step) const {
    for (;;) {
        try {
            step();
            return;
        } catch (const std::bad_alloc&) {
            if (!initiated) {
                throw;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace orvx::serviceregistryclient
