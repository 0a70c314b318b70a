#pragma once

#include <orvx/utility/Mutex.h>

#include <condition_variable>
#include <cstddef>

namespace orvx::serviceregistryclient {

class OrvServiceRegistryClient;

/// Gives unregister handles and listener removers access to their client as long as the client
/// exists. The client, its handles and its removers share it.
/// Thread-safety: every operation may be called from any thread.
class ClientReference {
  public:
    explicit ClientReference(OrvServiceRegistryClient& client) : client_(&client) {}

    /// Calls the function with the client, which exists until the function returns. Returns false
    /// if the client is gone and the function was not called. No lock is held during the call, so
    /// the function may call this object again. It must not destroy the client, whose destructor
    /// would wait for the call.
    template <typename Function>
    bool call(const Function& function) {
        OrvServiceRegistryClient* const client = enter();
        if (client == nullptr) {
            return false;
        }
        const Call leaving{*this};
        function(*client);
        return true;
    }

    /// Detaches the client: later calls return false. Waits for the calls that are running.
    void clear() {
        utility::MutexLock lock(mutex_);
        client_ = nullptr;
        while (calls_ != 0) {
            lastCallEnded_.wait(lock.native());
        }
    }

  private:
    struct Call {
        ClientReference& reference;
        ~Call() { reference.leave(); }
    };

    OrvServiceRegistryClient* enter() {
        const utility::MutexLock lock(mutex_);
        calls_ += client_ != nullptr ? 1 : 0;
        return client_;
    }
    void leave() {
        const utility::MutexLock lock(mutex_);
        if (--calls_ == 0) {
            lastCallEnded_.notify_all();
        }
    }

    utility::Mutex mutex_;
    OrvServiceRegistryClient* client_ ORVX_GUARDED_BY(mutex_);
    std::size_t calls_ ORVX_GUARDED_BY(mutex_) = 0;
    std::condition_variable lastCallEnded_;
};

}  // namespace orvx::serviceregistryclient
