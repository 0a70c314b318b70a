// Passes requests from the sessions to the I/O thread. A push() to an engine that is awake costs no
// system call: the engine checks the inbox before it sleeps.
// Entered by any thread. In a forked child `mutex_` may be held for ever, so it is not locked
// there, and the parent's engine is not woken. `mutex_` is a leaf lock. An engine is woken under
// it, so that an engine that has ended is never woken.

#include "RequestInbox.h"

namespace orvx::communication {

using utility::MutexLock;

void RequestInbox::push(std::unique_ptr<Request> request) {
    if (mark_.isInForkedChild()) {
        return;
    }
    MutexLock lock(mutex_);
    if (wakeUp_ != nullptr) {
        pending_.push(std::move(request));
        wake();
    }
}

void RequestInbox::open(const WakeUp* wakeUp) {
    mark_.set();
    MutexLock lock(mutex_);
    wakeUp_ = wakeUp;
    engineWaits_ = false;
}

RequestQueue RequestInbox::close(const WakeUp* wakeUp) {
    MutexLock lock(mutex_);
    if (wakeUp_ != wakeUp) {
        return {};
    }
    wake();
    wakeUp_ = nullptr;
    return std::move(pending_);
}

bool RequestInbox::isOpenFor(const WakeUp* wakeUp) const {
    MutexLock lock(mutex_);
    return wakeUp_ == wakeUp;
}

RequestQueue RequestInbox::take(const WakeUp* wakeUp) {
    MutexLock lock(mutex_);
    if (wakeUp_ != wakeUp) {
        return {};
    }
    engineWaits_ = false;
    return std::move(pending_);
}

bool RequestInbox::prepareToWait(const WakeUp* wakeUp) {
    MutexLock lock(mutex_);
    if (wakeUp_ != wakeUp || !pending_.isEmpty()) {
        return false;
    }
    engineWaits_ = true;
    return true;
}

void RequestInbox::wake() {
    if (engineWaits_) {
        engineWaits_ = false;
        wakeUp_->raise();
    }
}

}  // namespace orvx::communication
