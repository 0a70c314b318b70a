#pragma once

#include "ClientTestAccess.h"

#include <gtest/gtest.h>

#include <memory>

namespace orvx::serviceregistryclient {

/// User code: a callback and listener that fails the test if it is copied, called or destroyed
/// under the client's lock.
class LockProbe {
  public:
    /// Counts the calls of the probe and of its copies.
    struct Count {
        int copied = 0;
        int called = 0;
        int destroyed = 0;
    };

    LockProbe(OrvServiceRegistryClient& client, std::shared_ptr<Count> count)
        : client_(client), count_(std::move(count)) {}
    LockProbe(const LockProbe& other) : client_(other.client_), count_(other.count_) {
        ++count_->copied;
        expectUnlocked("copied");
    }
    LockProbe& operator=(const LockProbe&) = delete;
    ~LockProbe() {
        ++count_->destroyed;
        expectUnlocked("destroyed");
    }

    template <typename... Arguments>
    void operator()(const Arguments&...) const {
        ++count_->called;
        expectUnlocked("called");
    }

  private:
    void expectUnlocked(const char* what) const {
        EXPECT_TRUE(ClientTestAccess(client_).isLockFree()) << what << " under the lock";
    }

    OrvServiceRegistryClient& client_;
    std::shared_ptr<Count> count_;
};

}  // namespace orvx::serviceregistryclient
