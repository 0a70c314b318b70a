// How outcomes reach user code: as tasks of the callback executor, in the order in which they were
// queued. Entered by every thread, with or without the lock; only queues. A task holds no reference
// to the client.

#include "Memory.h"
#include "Upkeep.h"

#include <utility>

namespace orvx::serviceregistryclient {

using communication::HttpResponse;

// Told by an exception when memory runs out: for answers that are found at once.
void OrvServiceRegistryClient::callCallback(ResponseCallback callback, const Response& response) {
    if (!callback) {
        return;
    }
    upkeep->tell([callback = std::move(callback), response] { callback(*response); });
}

// For outcomes that nobody else could tell. What makes a task allocates first and moves the
// callback then.
void OrvServiceRegistryClient::callCallbacks(Callbacks callbacks,
                                             OrvRegistrationResponse::Status status,
                                             OrvRegistrationResponse::ErrorCode reason,
                                             HttpResponse response) {
    if (callbacks.empty()) {
        return;
    }
    Response outcome;
    whenThereIsMemory([&] { outcome = std::make_shared<OrvRegistrationResponse>(status, reason); });
    whenThereIsMemory(
        [&] { outcome->httpResponse = std::make_shared<HttpResponse>(std::move(response)); });
    for (ResponseCallback& callback : callbacks) {
        if (callback) {
            auto call = [callback = std::move(callback), outcome] { callback(*outcome); };
            Tasks task;
            whenThereIsMemory([&] { task.emplace_back(std::move(call)); });
            callbackExecutor.add(std::move(task));
        }
    }
}

/// What tells the listener, to be queued when it has become true.
OrvServiceRegistryClient::Tasks OrvServiceRegistryClient::notificationLocked(
    std::shared_ptr<const common::ServiceModel> service, bool registered) const {
    Tasks tasks;
    if (statusListener) {
        tasks.emplace_back([listener = statusListener, service = std::move(service), registered] {
            listener(service, registered);
        });
    }
    return tasks;
}

}  // namespace orvx::serviceregistryclient
