// The answer to a failed PUT: retries a first registration, registers a lost service again after
// the check interval, or gives up. Entered by the I/O thread, and by threads that could not make
// the PUT. The lock is held for the decision; callbacks are queued after unlocking.

#include "Memory.h"
#include "RegistrationTable.h"
#include "Upkeep.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <utility>

namespace orvx::serviceregistryclient {

using communication::CommunicationStatus;
using communication::HttpResponse;

void OrvServiceRegistryClient::handlePutResponseError(
    std::uint64_t id, const std::shared_ptr<RequestContainer>& request, HttpResponse response) {
    Callbacks callbacks;
    Failure failure{};
    retryOnBadAlloc([&] { failure = recordFailure(id, request, response, callbacks); });
    if (failure == Failure::GivenUp) {
        callCallbacks(std::move(callbacks), OrvRegistrationResponse::ERROR,
                      OrvRegistrationResponse::SERVICE_REGISTRY_ERROR, std::move(response));
    } else if (failure == Failure::Withdrawn) {
        // The service was withdrawn while the registry had lost it: there is nothing left to
        // delete.
        retryOnBadAlloc([&] { deleteRegistryEntriesAndNotifyListener(id, callbacks); });
        callCallbacks(std::move(callbacks), OrvRegistrationResponse::OK,
                      OrvRegistrationResponse::NONE, std::move(response));
    }
}

/// Moves the callbacks of a registration that is given up into `callbacks`.
OrvServiceRegistryClient::Failure OrvServiceRegistryClient::recordFailure(
    std::uint64_t id, const std::shared_ptr<RequestContainer>& request,
    const HttpResponse& response, Callbacks& callbacks) {
    std::shared_ptr<RegistrationData> record;
    const utility::MutexLock lock(mutex);
    record = mapRegistryCallback->find(id);
    if (!record) {
        logger->logError(false)
            << "handlePutResponseError called but id not found in mapRegistryCallback. id=" << id;
        return Failure::Ignored;
    }
    upkeep->failLocked(id, *request, record->facts,
                       RegistrationFacts::failureOf("PUT", response, timer.now()));
    if (!record->wasRegistered) {
        if (retryLocked(id, request, *record, response)) {
            return Failure::Retried;
        }
        if (!response.getBody().empty()) {
            logger->logWarning(false)
                << "error message from service registry=" << response.getBody();
        }
        upkeep->reportLocked(id, *request, record->facts, RegistrationEvent::Kind::Withdrawn);
        callbacks = RegistrationData::take(record->registerCallbacks);
        mapRegistryCallback->erase(id);
        notifyIfEmptyLocked();
        return Failure::GivenUp;
    }
    if (isUnregistering(record->state)) {
        return Failure::Withdrawn;
    }
    schedulePutLocked(checkDelay(), id, request);
    if (logger->isInfoEnabled()) {
        logger->logInfo(false) << "re-register request: " << *request->uri;
    }
    return Failure::Retried;
}

/// Returns whether the request will be sent again. Limited retries have a constant delay, unlimited
/// retries follow the back-off.
bool OrvServiceRegistryClient::retryLocked(std::uint64_t id,
                                           const std::shared_ptr<RequestContainer>& request,
                                           RegistrationData& record, const HttpResponse& response) {
    if (!isRetryable(response) || !context.isRetryEnabled() ||
        isWithoutSessionLocked(*request->serviceInfo)) {
        return false;
    }
    const std::uint16_t max = context.maxRetryCount();
    std::uint16_t& retryCount = record.registerCallbacks->retryCount;
    if (max != 0 && retryCount >= max) {
        return false;
    }
    auto backoff = *record.backoffSequence;
    schedulePutLocked(max == 0 ? backoff.nextDelay() : context.getRetryInterval(), id, request);
    *record.backoffSequence = backoff;
    ++retryCount;
    if (logger->isInfoEnabled()) {
        logger->logInfo(false) << "retry (" << retryCount << ".) request: " << *request->uri;
    }
    return true;
}

/// Logs the reason.
bool OrvServiceRegistryClient::isRetryable(const HttpResponse& response) const {
    const CommunicationStatus communicationStatus = response.getCommunicationStatus();
    const auto status = static_cast<std::int32_t>(response.getStatusCode());
    if (communicationStatus == CommunicationStatus::Ok &&
        (!context.isRetryOnHttpStatusEnabled() ||
         context.getHttpStatusCodesForRetry().count(response.getStatusCode()) == 0)) {
        logger->logWarning(false) << "response put request was not ok, status=" << status;
        return false;
    }
    logger->logWarning(false) << "response put request was not ok, communication status="
                              << communicationStatusToString(communicationStatus)
                              << ", status=" << status;
    return true;
}

void OrvServiceRegistryClient::schedulePutLocked(std::chrono::milliseconds delay, std::uint64_t id,
                                                 const std::shared_ptr<RequestContainer>& request) {
    timer.addTask(delay, [this, id, request] { sendPutRequest(id, request); });
    if (const auto record = mapRegistryCallback->find(id)) {
        record->facts.plan(timer.now(), delay);
    }
}

}  // namespace orvx::serviceregistryclient
