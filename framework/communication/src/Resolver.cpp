// The resolver's thread and the state that it shares with the I/O thread.
// Entered by the I/O thread; work() runs on the resolver's thread. `mutex` guards the state. The
// I/O thread is woken under it, because an I/O thread that has closed the resolver may have ended;
// apart from that it is a leaf lock.

#include "Resolver.h"

#include <orvx/utility/Mutex.h>
#include <orvx/utility/WorkerThread.h>

#include <dlfcn.h>

namespace orvx::communication {

using utility::MutexLock;

/// Shared with the thread, which may be the last owner.
struct Resolver::State {
    explicit State(const WakeUp& raised) : wakeUp(raised) {}

    utility::Mutex mutex;
    const WakeUp& wakeUp;  // Valid until close().
    LookUps waiting ORVX_GUARDED_BY(mutex);
    LookUps answered ORVX_GUARDED_BY(mutex);
    bool isWorking ORVX_GUARDED_BY(mutex) = false;
    bool isLookingUp ORVX_GUARDED_BY(mutex) = false;
    bool isClosed ORVX_GUARDED_BY(mutex) = false;
    utility::WorkerThread thread;  // Used by the I/O thread only.
};

namespace {

/// Keeps the object file with this code loaded, which may be a plug-in that is about to be
/// unloaded.
void keepLoaded() noexcept {
    Dl_info where{};
    if (::dladdr(reinterpret_cast<void*>(&keepLoaded), &where) != 0) {
        ::dlopen(where.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

}  // namespace

Resolver::Resolver(const WakeUp& wakeUp) : state_(std::make_shared<State>(wakeUp)) {}

Resolver::~Resolver() {
    close();
}

void Resolver::lookUp(const std::string& name) {
    LookUps added;
    added.push_back({name, {}});
    {
        MutexLock lock(state_->mutex);
        state_->waiting.splice(state_->waiting.end(), added);
        if (state_->isWorking) {
            return;
        }
        state_->isWorking = true;
    }
    try {
        state_->thread.start("ORVX_Resolver", [state = state_] { work(*state); });
    } catch (...) {
        MutexLock lock(state_->mutex);
        state_->isWorking = false;
        added.splice(added.end(), state_->waiting);
        throw;
    }
}

Resolver::LookUps Resolver::take() {
    LookUps taken;
    MutexLock lock(state_->mutex);
    taken.splice(taken.end(), state_->answered);
    return taken;
}

void Resolver::close() noexcept {
    bool isLeft = false;
    {
        MutexLock lock(state_->mutex);
        if (state_->isClosed) {
            return;
        }
        state_->isClosed = true;
        isLeft = state_->isLookingUp;
    }
    if (isLeft) {
        keepLoaded();
    } else {
        state_->thread.end();
    }
}

void Resolver::work(State& state) {
    MutexLock lock(state.mutex);
    while (!state.isClosed && !state.waiting.empty()) {
        LookUps now;
        now.splice(now.end(), state.waiting, state.waiting.begin());
        state.isLookingUp = true;
        lock.unlock();
        now.front().answer = communication::lookUp(now.front().name);
        lock.lock();
        state.isLookingUp = false;
        if (!state.isClosed) {
            state.answered.splice(state.answered.end(), now);
            state.wakeUp.raise();
        }
    }
    state.isWorking = false;
}

}  // namespace orvx::communication
