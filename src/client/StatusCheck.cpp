// The periodic check of a registered service, its time-out, and the re-registration of a lost
// entry. Entered by the timer's thread (HEAD, time-out) and the I/O thread (answers). Everything
// happens under the lock, including the submission of the HEAD, which never blocks and never calls
// a handler. Only the PUT of a re-registration is sent after unlocking.

#include "Memory.h"
#include "RegistrationTable.h"
#include "Upkeep.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <new>
#include <utility>

namespace orvx::serviceregistryclient {

using communication::CommunicationStatus;
using communication::HttpResponse;

void OrvServiceRegistryClient::sendHeadRequest(std::uint64_t id,
                                               const std::shared_ptr<RequestContainer>& container) {
    retryOnBadAlloc([&] { sendHeadRequestOnce(id, container); });
}

void OrvServiceRegistryClient::sendHeadRequestOnce(
    std::uint64_t id, const std::shared_ptr<RequestContainer>& container) {
    const utility::MutexLock lock(mutex);
    if (!initiated) {
        return;
    }
    const auto record = mapRegistryCallback->find(id);
    if (!record) {
        logger->logWarning(false)
            << "sendHeadRequest called but id not found in mapRegistryCallback. id=" << id;
        return;
    }
    if (record->state != REGISTERED) {
        logger->logWarning(false) << "sendHeadRequest called but service is not REGISTERED. id="
                                  << id;
        return;
    }
    record->facts.requestSent();
    const auto session = usableSessionLocked(*container->serviceInfo);
    session->sendHeadRequest("/" + RegistrationTable::registryIdOf(*container),
                             [this, id, container](const HttpResponse& response) {
                                 handleHeadResponse(id, container, response);
                             });
    checkState = PENDING;
    try {
        timer.addTask(context.getHeadTimeout(), [this, session] { handleHeadTimeout(*session); });
    } catch (const std::bad_alloc&) {
        // This check ends with the request time-out.
    }
}

// A time-out ends the check: it is not scheduled again, and a late answer is ignored.
void OrvServiceRegistryClient::handleHeadTimeout(communication::IClientHttpSession& session) {
    const utility::MutexLock lock(mutex);
    if (checkState == RESPONDED) {
        checkState = IDLE;
        return;
    }
    checkState = TIMEOUT;
    logger->log("callback: Head State TIMEOUT", 0);
    try {
        session.abandon();
    } catch (const std::bad_alloc&) {
        // The HEAD ends with its request time-out; its answer is ignored anyway.
    }
}

void OrvServiceRegistryClient::handleHeadResponse(
    std::uint64_t id, const std::shared_ptr<RequestContainer>& container,
    const HttpResponse& response) {
    bool isInTime = false;
    bool isToRegisterAgain = false;
    retryOnBadAlloc(
        [&] { isToRegisterAgain = recordHeadResponse(id, container, response, isInTime); });
    if (isToRegisterAgain) {
        sendPutRequest(id, container);
    }
}

/// `isInTime` stays true if the step is repeated.
bool OrvServiceRegistryClient::recordHeadResponse(
    std::uint64_t id, const std::shared_ptr<RequestContainer>& container,
    const HttpResponse& response, bool& isInTime) {
    const utility::MutexLock lock(mutex);
    const auto record = mapRegistryCallback->find(id);
    if (record) {
        recordCheckLocked(id, *container, *record, response);
    }
    if (!isInTime && checkState == TIMEOUT) {
        logger->log("TIMEOUT on head request, ignore response.", 0);
        checkState = IDLE;
        return false;
    }
    if (!std::exchange(isInTime, true)) {
        checkState = RESPONDED;
    }
    const bool isLost = response.getCommunicationStatus() == CommunicationStatus::Ok &&
                        response.getStatusCode() == HttpResponse::StatusCode::NotFound;
    if (isLost) {
        return markLostLocked(id, *container, response);
    }
    if (record) {
        scheduleCheck(id, container);
        record->facts.plan(timer.now(), checkDelay());
    }
    return false;
}

/// Records the answer to a check for getRegistrations() and the registration listener, even if the
/// check ignores it.
void OrvServiceRegistryClient::recordCheckLocked(std::uint64_t id,
                                                 const RequestContainer& container,
                                                 RegistrationData& record,
                                                 const HttpResponse& response) {
    const auto status = static_cast<std::int32_t>(response.getStatusCode());
    if (status >= 200 && status < 300) {
        record.facts.confirmed = timer.now();
        upkeep->succeedLocked(id, container, record.facts);
    } else if (status != 404) {
        upkeep->failLocked(id, container, record.facts,
                           RegistrationFacts::failureOf("HEAD", response, timer.now()));
    }
}

/// Returns false if there is nothing to register again.
bool OrvServiceRegistryClient::markLostLocked(std::uint64_t id, RequestContainer& container,
                                              const HttpResponse& response) {
    const auto record = mapRegistryCallback->find(id);
    if (!record || isUnregistering(record->state)) {
        return false;
    }
    auto reason = RegistrationFacts::failureOf("HEAD", response, timer.now());
    Tasks notification = notificationLocked(container.serviceCreate, false);
    mapRegistryCallback->setRegistryEntry(container, "", "");
    record->state = REREGISTERING;
    if (logger->isInfoEnabled()) {
        logger->logInfo(false) << "automatic re-register with request: " << *container.uri;
    }
    upkeep->succeedLocked(id, container, record->facts);
    record->facts.failure = std::move(reason);
    upkeep->enterLocked(id, container, record->facts, RegistrationStatus::State::Lost,
                        RegistrationEvent::Kind::Lost);
    callbackExecutor.add(std::move(notification));
    return true;
}

/// The check interval in milliseconds, limited to the range of the type.
std::chrono::milliseconds OrvServiceRegistryClient::checkDelay() const {
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    const seconds interval = context.getCheckInterval();
    if (interval > std::chrono::duration_cast<seconds>(milliseconds::max())) {
        return milliseconds::max();
    }
    if (interval < std::chrono::duration_cast<seconds>(milliseconds::min())) {
        return milliseconds::min();
    }
    return interval;
}

}  // namespace orvx::serviceregistryclient
