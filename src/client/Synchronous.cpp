// Blocking forms, built from the asynchronous ones and a promise. Entered by the user's threads,
// which wait here; the callback thread fulfils the promises. No lock. After a wait nothing of the
// client is used, because the client may be gone. A client that is not running answers
// DELEGATOR_NOT_INITIATED, as for the asynchronous forms: internal_registerAtRegistry() in
// Registration.cpp and internal_unregisterFromRegistry() in Unregistration.cpp.

#include "Upkeep.h"

#include <algorithm>
#include <utility>

namespace orvx::serviceregistryclient {

// The promise is shared: it absorbs an answer that comes after the end of the wait.
OrvRegistrationResponse OrvServiceRegistryClient::makeSynchronizedCallRegistrationResponse(
    const std::function<void(Promise)>& call, std::chrono::milliseconds timeout) {
    const auto promise = std::make_shared<std::promise<OrvRegistrationResponse>>();
    call(promise);
    std::future<OrvRegistrationResponse> future = promise->get_future();
    if (timeout == std::chrono::milliseconds::zero() ||
        future.wait_for(std::min(timeout, Upkeep::kLongestWait)) == std::future_status::ready) {
        return future.get();
    }
    return {OrvRegistrationResponse::ERROR, OrvRegistrationResponse::TIMEOUT};
}

void OrvServiceRegistryClient::PromiseCallback::operator()(OrvRegistrationResponse response) const {
    promise->set_value(std::move(response));
}

std::function<OrvRegistrationResponse()> OrvServiceRegistryClient::synchronousUnregister(
    UnregisterHandle handle, std::chrono::milliseconds timeout) {
    return [handle = std::move(handle), timeout] {
        return makeSynchronizedCallRegistrationResponse(
            [&handle](Promise promise) { handle(PromiseCallback{std::move(promise)}); }, timeout);
    };
}

SyncOrvRegistrationResponse OrvServiceRegistryClient::registerServiceAtRegistry(
    const common::ServiceInfo& serviceInfo, const std::shared_ptr<common::ServiceCreate>& service) {
    return upkeep->registerAndWait(serviceInfo, service);
}

SyncOrvRegistrationResponse OrvServiceRegistryClient::registerAndWait(
    const common::ServiceInfo& serviceInfo, const std::shared_ptr<common::ServiceCreate>& service) {
    const std::chrono::milliseconds unregisterTimeout = syncCallUnregisterTimeout;
    UnregisterHandle handle;
    SyncOrvRegistrationResponse result;
    result.response = makeSynchronizedCallRegistrationResponse(
        [&](Promise promise) {
            handle = registerServiceAtRegistry(serviceInfo, service,
                                               PromiseCallback{std::move(promise)});
        },
        std::chrono::milliseconds::zero());
    result.unregister = synchronousUnregister(std::move(handle), unregisterTimeout);
    return result;
}

}  // namespace orvx::serviceregistryclient
