// The way from the sessions to the I/O thread. A push() into an engine that is awake costs no
// system call: the engine looks here before it sleeps. Entered by any thread; in a forked child
// `mutex_` may be held for ever, so nobody touches it there, nor wakes what is the parent's.
// `mutex_` is a leaf lock but for curl_multi_wakeup(), which is called under it so that no multi
// handle is woken that its engine has given up.

#include "RequestInbox.h"

namespace orvx::communication {

using utility::MutexLock;

void RequestInbox::push(std::unique_ptr<Request> request) {
    if (mark_.isLeftBehind()) {
        return;
    }
    MutexLock lock(mutex_);
    if (multi_ != nullptr) {
        pending_.push(std::move(request));
        wake();
    }
}

void RequestInbox::open(CURLM* multi) {
    mark_.set();
    MutexLock lock(mutex_);
    multi_ = multi;
    engineWaits_ = false;
}

RequestQueue RequestInbox::close(CURLM* multi) {
    MutexLock lock(mutex_);
    if (multi_ != multi) {
        return {};
    }
    wake();
    multi_ = nullptr;
    return std::move(pending_);
}

bool RequestInbox::isOpenFor(CURLM* multi) const {
    MutexLock lock(mutex_);
    return multi_ == multi;
}

RequestQueue RequestInbox::take(CURLM* multi) {
    MutexLock lock(mutex_);
    if (multi_ != multi) {
        return {};
    }
    engineWaits_ = false;
    return std::move(pending_);
}

bool RequestInbox::mayWait(CURLM* multi) {
    MutexLock lock(mutex_);
    if (multi_ != multi || !pending_.isEmpty()) {
        return false;
    }
    engineWaits_ = true;
    return true;
}

void RequestInbox::wake() {
    if (engineWaits_) {
        engineWaits_ = false;
        curl_multi_wakeup(multi_);
    }
}

}  // namespace orvx::communication
