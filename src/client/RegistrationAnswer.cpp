// The answer to a PUT that is a success: taking the uuid from the location, recording the entry,
// telling the callbacks and the listener, starting the check. Entered by the I/O thread. The lock
// is held from looking up the registration until its record is written; callbacks are dispatched
// after.
#include "RegistrationTable.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <utility>

namespace orvx::serviceregistryclient {

using communication::HttpResponse;

void OrvServiceRegistryClient::handlePutResponse(std::uint64_t id,
                                                 const std::shared_ptr<RequestContainer>& request,
                                                 HttpResponse response) {
    if (response.getStatusCode() != HttpResponse::StatusCode::Ok &&
        response.getStatusCode() != HttpResponse::StatusCode::Created) {
        handlePutResponseError(id, request, std::move(response));
        return;
    }
    const std::optional<std::string> location = response.getLocation();
    if (!location) {
        logger->logWarning(false) << "HTTP response is missing location field";
        handlePutResponseError(id, request, std::move(response));
        return;
    }
    const std::size_t slash = location->rfind('/');
    if (slash == std::string::npos) {
        logger->logWarning(false) << "Cannot parse service uuid from HTTP location: " << *location;
        handlePutResponseError(id, request, std::move(response));
        return;
    }
    const std::string uuid = location->substr(slash + 1);

    Callbacks callbacks;
    bool isWithdrawn = false;
    {
        std::shared_ptr<RegistrationData> record;
        std::shared_ptr<RegistrationData> released;
        const utility::MutexLock lock(mutex);
        record = mapRegistryCallback->find(id);
        if (!record) {
            logger->logError(false)
                << "PUT response received but id not found in mapRegistryCallback. id=" << id;
            return;
        }
        if (const auto sameEntry = mapRegistryCallback->findByRegistryId(uuid)) {
            // Whatever the other registration's state: this id follows it from now on.
            callbacks = RegistrationData::take(record->registerCallbacks);
            released = mapRegistryCallback->lead(id, sameEntry);
        } else if (isUnregistering(record->state)) {
            isWithdrawn = true;
        } else {
            callbacks = recordEntryLocked(*record, *request, uuid, *location);
        }
    }
    if (isWithdrawn) {
        internal_unregisterFromRegistry(id, {});
        return;
    }
    const auto outcome = std::make_shared<OrvRegistrationResponse>(OrvRegistrationResponse::OK,
                                                                   OrvRegistrationResponse::NONE);
    outcome->httpResponse = std::make_shared<HttpResponse>(std::move(response));
    callCallbacks(std::move(callbacks), outcome);
    if (context.isCheckEnabled()) {
        scheduleCheck(id, request);
    }
}

// The registration's callbacks are told of its first success only; the listener of every one.
OrvServiceRegistryClient::Callbacks OrvServiceRegistryClient::recordEntryLocked(
    RegistrationData& record, RequestContainer& request, const std::string& uuid,
    const std::string& location) {
    mapRegistryCallback->describe(request, uuid, location);
    record.state = REGISTERED;
    Callbacks callbacks;
    if (!record.wasRegistered) {
        record.wasRegistered = true;
        record.backoffSequence.reset();
        callbacks = RegistrationData::take(record.registerCallbacks);
        record.registerCallbacks.reset();
    }
    notifyListener(statusListener, request.serviceCreate, true);
    return callbacks;
}

void OrvServiceRegistryClient::scheduleCheck(std::uint64_t id,
                                             const std::shared_ptr<RequestContainer>& request) {
    timer.addTask(checkDelay(), [this, id, request] { sendHeadRequest(id, request); });
}

}  // namespace orvx::serviceregistryclient
