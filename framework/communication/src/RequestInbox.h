#pragma once

#include "Request.h"
#include "WakeUp.h"

#include <orvx/utility/ForkMark.h>
#include <orvx/utility/Mutex.h>

#include <memory>

namespace orvx::communication {

/// Where the sessions of a communication context leave requests for its I/O thread, if it has one.
/// Shared by the context, its sessions and its engines; it outlives every one of them.
///
/// Thread-safety: push(), open() and close() from any thread, the others by an engine's I/O thread.
/// No handler is ever called or destroyed under its lock.
class RequestInbox {
  public:
    /// Dropped, on the calling thread, while it is closed, and in a forked child.
    void push(std::unique_ptr<Request> request) ORVX_EXCLUDES(mutex_);

    /// From here on requests are for the engine that this wakes up.
    void open(const WakeUp* wakeUp) ORVX_EXCLUDES(mutex_);
    /// Takes nothing any more if it is open for that engine, and returns what nobody has taken.
    RequestQueue close(const WakeUp* wakeUp) ORVX_EXCLUDES(mutex_);

    bool isOpenFor(const WakeUp* wakeUp) const ORVX_EXCLUDES(mutex_);
    /// What has been left since the last call; wake-ups stop until mayWait().
    RequestQueue take(const WakeUp* wakeUp) ORVX_EXCLUDES(mutex_);
    /// Asks to be woken by the next push() or close(); false when there is cause to go on at once.
    bool mayWait(const WakeUp* wakeUp) ORVX_EXCLUDES(mutex_);

  private:
    void wake() ORVX_REQUIRES(mutex_);

    utility::ForkMark mark_;
    mutable utility::Mutex mutex_;
    const WakeUp* wakeUp_ ORVX_GUARDED_BY(mutex_) = nullptr;
    bool engineWaits_ ORVX_GUARDED_BY(mutex_) = false;
    RequestQueue pending_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::communication
