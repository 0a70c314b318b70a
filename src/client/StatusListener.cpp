// Setting and removing the status listener. Entered by the user's threads. The lock is held to
// exchange the listener; notificationLocked() in CallbackDispatch.cpp queues the notifications.

#include "OrvServiceRegistryClient.h"

#include <utility>

namespace orvx::serviceregistryclient {

std::function<void()> OrvServiceRegistryClient::addServiceRegisterStatusListener(
    StatusListener listener) {
    // Shared, so that handing it out under the lock copies a pointer and no user code.
    StatusListener shared;
    if (listener) {
        shared = [owned = std::make_shared<const StatusListener>(std::move(listener))](
                     std::shared_ptr<const common::ServiceModel> service, bool registered) {
            (*owned)(std::move(service), registered);
        };
    }
    // Made first: a listener that is set has a remover, even where memory runs out.
    std::function<void()> remover = [reference = reference] {
        StatusListener removed;  // user code: destroyed when the call has ended
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
