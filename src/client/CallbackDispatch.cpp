// How outcomes reach user code: as tasks of the callback executor, in the order in which they were
// queued. Entered by every thread, with or without the lock; only queues. A task holds no reference
// to the client.
#include "OrvServiceRegistryClient.h"

#include <utility>

namespace orvx::serviceregistryclient {

// Taken by value: a caller that holds the lock moves, so that no user code is copied under it.
void OrvServiceRegistryClient::callCallback(ResponseCallback callback, const Response& response) {
    if (!callback) {
        return;
    }
    callbackExecutor.add([callback = std::move(callback), response] { callback(*response); });
}

void OrvServiceRegistryClient::callCallbacks(Callbacks callbacks, const Response& response) {
    for (ResponseCallback& callback : callbacks) {
        callCallback(std::move(callback), response);
    }
}

void OrvServiceRegistryClient::notifyListener(StatusListener listener,
                                              std::shared_ptr<const common::ServiceModel> service,
                                              bool registered) {
    if (!listener) {
        return;
    }
    callbackExecutor.add([listener = std::move(listener), service = std::move(service),
                          registered] { listener(service, registered); });
}

}  // namespace orvx::serviceregistryclient
