// The answer to a successful PUT: takes the uuid from the location, records the entry, calls the
// callbacks and the listener, starts the check. Entered by the I/O thread. The lock is held from
// the look-up of the registration until its record is written; callbacks are queued after
// unlocking.

#include "Memory.h"
#include "RegistrationTable.h"
#include "Upkeep.h"

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
    std::optional<std::string> location;
    retryOnBadAlloc([&] { location = response.getLocation(); });
    if (!location) {
        logger->logWarning(false) << "HTTP response is missing location field";
        handlePutResponseError(id, request, std::move(response));
        return;
    }
    if (location->find('/') == std::string::npos) {
        logger->logWarning(false) << "Cannot parse service uuid from HTTP location: " << *location;
        handlePutResponseError(id, request, std::move(response));
        return;
    }
    Callbacks callbacks;
    Success success{};
    bool isRecorded = false;
    retryOnBadAlloc(
        [&] { success = recordSuccess(id, *request, *location, callbacks, isRecorded); });
    if (success == Success::Withdrawn) {
        retryOnBadAlloc([&] { internal_unregisterFromRegistry(id, {}); });
    } else if (success == Success::Known) {
        callCallbacks(std::move(callbacks), OrvRegistrationResponse::OK,
                      OrvRegistrationResponse::NONE, std::move(response));
        if (context.isCheckEnabled()) {
            retryOnBadAlloc([&] { scheduleCheck(id, request); });
        }
    }
}

/// Moves the callbacks that are to be called into `callbacks`. `isRecorded` stays true if the step
/// is repeated: the entry that is found by the uuid is then the registration's own.
OrvServiceRegistryClient::Success OrvServiceRegistryClient::recordSuccess(
    std::uint64_t id, RequestContainer& request, const std::string& location, Callbacks& callbacks,
    bool& isRecorded) {
    const std::string uuid = location.substr(location.rfind('/') + 1);
    std::shared_ptr<RegistrationData> record;
    std::shared_ptr<RegistrationData> released;
    const utility::MutexLock lock(mutex);
    record = mapRegistryCallback->find(id);
    if (!record) {
        logger->logError(false)
            << "PUT response received but id not found in mapRegistryCallback. id=" << id;
        return Success::Unknown;
    }
    const auto sameEntry = isRecorded ? nullptr : mapRegistryCallback->findByRegistryId(uuid);
    if (sameEntry) {
        // The id follows the other registration from now on, whatever that registration's state is.
        released = mapRegistryCallback->redirect(id, sameEntry);
        if (released != sameEntry) {  // false if the step is repeated
            callbacks = RegistrationData::take(released->registerCallbacks);
        }
        upkeep->reportLocked(id, *sameEntry->requestContainer, sameEntry->facts,
                             RegistrationEvent::Kind::Announced);
    } else if (!isRecorded && isUnregistering(record->state)) {
        return Success::Withdrawn;
    } else {
        isRecorded = true;
        callbacks = recordEntryLocked(*record, request, uuid, location);
    }
    return Success::Known;
}

// Calls the registration's callbacks on its first success only, and the listener on every success.
OrvServiceRegistryClient::Callbacks OrvServiceRegistryClient::recordEntryLocked(
    RegistrationData& record, RequestContainer& request, const std::string& uuid,
    const std::string& location) {
    Tasks notification = notificationLocked(request.serviceCreate, true);
    mapRegistryCallback->setRegistryEntry(request, uuid, location);
    if (!isUnregistering(record.state)) {  // else withdrawn between two attempts of this step
        record.state = REGISTERED;
    }
    Callbacks callbacks;
    RegistrationFacts& facts = record.facts;
    facts.confirmed = timer.now();
    if (context.isCheckEnabled()) {
        facts.plan(facts.confirmed, checkDelay());
    }
    upkeep->succeedLocked(record.ids.front(), request, facts);
    upkeep->enterLocked(record.ids.front(), request, facts, RegistrationStatus::State::Announced,
                        RegistrationEvent::Kind::Announced);
    if (!record.wasRegistered) {
        record.wasRegistered = true;
        record.backoffSequence.reset();
        callbacks = RegistrationData::take(record.registerCallbacks);
        record.registerCallbacks.reset();
    }
    callbackExecutor.add(std::move(notification));
    return callbacks;
}

void OrvServiceRegistryClient::scheduleCheck(std::uint64_t id,
                                             const std::shared_ptr<RequestContainer>& request) {
    timer.addTask(checkDelay(), [this, id, request] { sendHeadRequest(id, request); });
}

}  // namespace orvx::serviceregistryclient
