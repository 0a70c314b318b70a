// The resolver's thread and the state that it shares with the I/O thread.
// Entered by the I/O thread; work() runs on the resolver's thread. `mutex` guards the state. The
// I/O thread is woken under it, because an I/O thread that has closed the resolver may have ended;
// apart from that it is a leaf lock.

#include "Resolver.h"

#include <orvx/utility/Mutex.h>
#include <orvx/utility/WorkerThread.h>

#include <dlfcn.h>

#include <algorithm>

namespace orvx::communication {

using utility::MutexLock;

/// Shared with the thread, which may be the last owner.
struct Resolver::State {
    explicit State(const WakeUp& raised) : wakeUp(raised) {}

    utility::Mutex mutex;
    const WakeUp& wakeUp;  // Valid until close().
    LookUps waiting ORVX_GUARDED_BY(mutex);
    LookUps current ORVX_GUARDED_BY(mutex);  // Empty or one; the thread sets its answer.
    LookUps answered ORVX_GUARDED_BY(mutex);
    bool isWorking ORVX_GUARDED_BY(mutex) = false;
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

bool contains(const Resolver::LookUps& lookUps, const std::string& name) {
    return std::any_of(lookUps.begin(), lookUps.end(),
                       [&name](const Resolver::LookUp& one) { return one.name == name; });
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
        if (contains(state_->current, name) || contains(state_->waiting, name)) {
            return;
        }
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
        isLeft = !state_->current.empty();
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
        state.current.splice(state.current.end(), state.waiting, state.waiting.begin());
        LookUp& current = state.current.front();
        lock.unlock();
        current.answer = communication::lookUp(current.name);
        lock.lock();
        if (state.isClosed) {
            state.current.clear();
        } else {
            state.answered.splice(state.answered.end(), state.current);
            state.wakeUp.raise();
        }
    }
    state.isWorking = false;
}

}  // namespace orvx::communication
