#pragma once

#include "HttpTest.h"

#include <future>

namespace orvx::testing {

/// Keeps the I/O thread inside a handler, so that it then finds all events of that time at once.
class BusyIoThread {
  public:
    explicit BusyIoThread(const OrvClientCommunicationContext& context) {
        context.getUnavailableSession()->sendHeadRequest("/", outcome_.handler([this] {
            entered_.set_value();
            released_.get_future().wait();
        }));
        entered_.get_future().wait();
    }
    /// Releases the handler, and waits until it is destroyed.
    ~BusyIoThread() {
        released_.set_value();
        EXPECT_TRUE(outcome_.waitUntilDestroyed());
    }
    BusyIoThread(const BusyIoThread&) = delete;
    BusyIoThread& operator=(const BusyIoThread&) = delete;

  private:
    Outcome outcome_;
    std::promise<void> entered_;
    std::promise<void> released_;
};

}  // namespace orvx::testing
