// Sets and removes the status listener. Entered by the user's threads. The lock is held to exchange
// the listener. notificationLocked() in CallbackDispatch.cpp builds the notifications.

#include "OrvServiceRegistryClient.h"

#include <utility>

namespace orvx::serviceregistryclient {

std::function<void()> OrvServiceRegistryClient::addServiceRegisterStatusListener(
    StatusListener listener) {
    // Shared, so that copying it under the lock copies a pointer and no user code.
    StatusListener shared;
    if (listener) {
        shared = [owned = std::make_shared<const StatusListener>(std::move(listener))](
                     std::shared_ptr<const common::ServiceModel> service, bool registered) {
            (*owned)(std::move(service), registered);
        };
    }
    // Made before the listener is set, so that every listener has a remover even if memory runs
    // out.
    std::function<void()> remover = [reference = reference] {
        StatusListener removed;  // user code: destroyed after the call
        reference->call([&removed](OrvServiceRegistryClient& client) {
            const utility::MutexLock lock(client.mutex);
            client.statusListener.swap(removed);
        });
    };
    {
        const utility::MutexLock lock(mutex);
        statusListener.swap(shared);
    }
    return remover;
}

}  // namespace orvx::serviceregistryclient
