#pragma once

#include "OrvServiceRegistryClient.h"

#include <chrono>
#include <new>
#include <thread>

namespace orvx::serviceregistryclient {

/// Nothing gets lost for lack of memory: a step of the library's threads that finds none is done
/// again a moment later, until there is some or the client is stopped; then it throws. Without the
/// lock. A step that throws std::bad_alloc has changed nothing, or what does not hurt the second
/// time.
template <typename Step>
void OrvServiceRegistryClient::whenThereIsMemory(const Step& step) const {
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
