// Delivers outcomes to user code, as tasks of the callback executor, in the order in which they
// were queued. Entered by every thread that enters the client. Only queues tasks; a task holds no
// reference to the client.

#include "Memory.h"
#include "Upkeep.h"

#include <utility>

namespace orvx::serviceregistryclient {

using communication::HttpResponse;

// This and callCallbackLocked() throw std::bad_alloc; used for outcomes that are known immediately.
void OrvServiceRegistryClient::callCallback(ResponseCallback callback, const Response& response) {
    if (callback) {
        upkeep->queueTask([callback = std::move(callback), response] { callback(*response); });
    }
}

void OrvServiceRegistryClient::callCallbackLocked(ResponseCallback callback,
                                                  const Response& response) {
    if (callback) {
        Tasks task;
        task.emplace_back([callback = std::move(callback), response] { callback(*response); });
        upkeep->queueTasksLocked(std::move(task));
    }
}

// Used for outcomes that no other code would report: retries until there is memory. Each step
// allocates before it moves the callback.
void OrvServiceRegistryClient::callCallbacks(Callbacks callbacks,
                                             OrvRegistrationResponse::Status status,
                                             OrvRegistrationResponse::ErrorCode reason,
                                             HttpResponse response) {
    if (callbacks.empty()) {
        return;
    }
    Response outcome;
    retryOnBadAlloc([&] { outcome = std::make_shared<OrvRegistrationResponse>(status, reason); });
    retryOnBadAlloc(
        [&] { outcome->httpResponse = std::make_shared<HttpResponse>(std::move(response)); });
    for (ResponseCallback& callback : callbacks) {
        if (callback) {
            auto call = [callback = std::move(callback), outcome] { callback(*outcome); };
            Tasks task;
            retryOnBadAlloc([&] { task.emplace_back(std::move(call)); });
            callbackExecutor.add(std::move(task));
        }
    }
}

/// Builds the notification; the caller queues it after it has committed the change.
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
