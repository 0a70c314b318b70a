#pragma once

#include "Request.h"
#include "WakeUp.h"

#include <orvx/utility/ForkMark.h>
#include <orvx/utility/Mutex.h>

#include <memory>

namespace orvx::communication {

/// Queue of requests from the sessions of a communication context to its I/O thread. The context,
/// its sessions and its engines share it.
///
/// Thread-safety: push(), open() and close() may be called from any thread, the others from the I/O
/// thread of an engine. No handler is called or destroyed under the lock.
class RequestInbox {
  public:
    /// Adds a request. Drops it on the calling thread if the inbox is closed, and in a forked
    /// child.
    void push(std::unique_ptr<Request> request) ORVX_EXCLUDES(mutex_);

    /// From now on requests are for the engine that `wakeUp` wakes.
    void open(const WakeUp* wakeUp) ORVX_EXCLUDES(mutex_);
    /// Closes the inbox if it is open for that engine, and returns the requests that the engine has
    /// not taken.
    RequestQueue close(const WakeUp* wakeUp) ORVX_EXCLUDES(mutex_);

    bool isOpenFor(const WakeUp* wakeUp) const ORVX_EXCLUDES(mutex_);
    /// The requests that were added since the last call. Stops wake-ups until prepareToWait().
    RequestQueue take(const WakeUp* wakeUp) ORVX_EXCLUDES(mutex_);
    /// Requests a wake-up by the next push() or close(). Returns false if the engine must not wait:
    /// there are requests, or the inbox is not open for it.
    bool prepareToWait(const WakeUp* wakeUp) ORVX_EXCLUDES(mutex_);

  private:
    void wake() ORVX_REQUIRES(mutex_);

    utility::ForkMark mark_;
    mutable utility::Mutex mutex_;
    const WakeUp* wakeUp_ ORVX_GUARDED_BY(mutex_) = nullptr;
    bool engineWaits_ ORVX_GUARDED_BY(mutex_) = false;
    RequestQueue pending_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::communication
