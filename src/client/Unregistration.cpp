// Withdrawal: the DELETE, its answer, and the removal from the table. Entered by the user's threads
// and the I/O thread. The lock is held to look up and to change the record, but not while the
// DELETE is passed to the session. Callbacks are copied before locking.

#include "Memory.h"
#include "RegistrationTable.h"
#include "Upkeep.h"

#include <new>
#include <utility>

namespace orvx::serviceregistryclient {

using communication::CommunicationStatus;
using communication::HttpResponse;

void OrvServiceRegistryClient::internal_unregisterFromRegistry(const std::uint64_t& id,
                                                               const ResponseCallback& callback) {
    const auto answer = [](OrvRegistrationResponse::Status status,
                           OrvRegistrationResponse::ErrorCode reason) {
        return std::make_shared<OrvRegistrationResponse>(status, reason);
    };
    if (!initiated) {
        callCallback(callback, answer(OrvRegistrationResponse::ERROR,
                                      OrvRegistrationResponse::DELEGATOR_NOT_INITIATED));
        return;
    }
    if (id == 0) {
        logger->logWarning(false) << "could not unregister service";
        callCallback(callback, answer(OrvRegistrationResponse::ERROR,
                                      OrvRegistrationResponse::SERVICE_NOT_FOUND));
        return;
    }
    // Shared, so that under the lock only a pointer is copied and destroyed, and no user code.
    ResponseCallback waiting;
    if (callback) {
        waiting = [owned = std::make_shared<const ResponseCallback>(callback)](
                      OrvRegistrationResponse response) { (*owned)(std::move(response)); };
    }
    std::shared_ptr<RequestContainer> container;
    {
        const utility::MutexLock lock(mutex);
        const auto record = mapRegistryCallback->find(id);
        if (!record) {
            logger->logWarning(false)
                << "Trying to unregister a service that is not registered (anymore). Ignore. id="
                << id;
            callCallbackLocked(waiting,
                               answer(OrvRegistrationResponse::OK, OrvRegistrationResponse::NONE));
            return;
        }
        if (RegistrationTable::registryIdOf(*record->requestContainer).empty()) {
            logger->logWarning(false)
                << "Trying to unregister a service that is not registered yet. Ignore. id=" << id;
            callCallbackLocked(waiting, answer(OrvRegistrationResponse::ERROR,
                                               OrvRegistrationResponse::SERVICE_NOT_FOUND));
            return;
        }
        if (!record->unregisterCallbacks) {
            record->unregisterCallbacks = std::make_unique<CallbackList>();
        }
        record->unregisterCallbacks->callbacks.push_back(waiting);
        if (isUnregistering(record->state)) {
            return;  // the outstanding DELETE answers this callback, too
        }
        record->state = UNREGISTERING;
        record->facts.enter(RegistrationStatus::State::Withdrawing, timer.now());
        container = record->requestContainer;
    }
    sendDeleteRequest(id, container);
}

void OrvServiceRegistryClient::sendDeleteRequest(
    std::uint64_t id, const std::shared_ptr<RequestContainer>& container) {
    try {
        std::shared_ptr<communication::IClientHttpSession> session;
        std::string path;
        {
            const utility::MutexLock lock(mutex);
            session = beginRequestLocked(id, *container, "sendDeleteRequest");
            path = session ? "/" + RegistrationTable::registryIdOf(*container) : "";
        }
        if (!session) {
            return;
        }
        session->sendDeleteRequest(std::move(path), "application/json",
                                   [this, id, container](HttpResponse response) {
                                       handleDeleteResponse(id, std::move(response));
                                   });
    } catch (const std::bad_alloc&) {
        handleDeleteResponse(id, HttpResponse(CommunicationStatus::OutOfMemory));
    }
}

void OrvServiceRegistryClient::handleDeleteResponse(std::uint64_t id, HttpResponse response) {
    Callbacks callbacks;
    if (response.getStatusCode() == HttpResponse::StatusCode::Ok) {
        retryOnBadAlloc([&] { deleteRegistryEntriesAndNotifyListener(id, callbacks); });
        callCallbacks(std::move(callbacks), OrvRegistrationResponse::OK,
                      OrvRegistrationResponse::NONE, std::move(response));
        return;
    }
    logger->logWarning(false) << "response to delete request was not ok, status="
                              << static_cast<std::int32_t>(response.getStatusCode());
    if (!response.getBody().empty()) {
        logger->logWarning(false) << "error message from service registry=" << response.getBody();
    }
    retryOnBadAlloc([&] { recordRefusal(id, response, callbacks); });
    callCallbacks(std::move(callbacks), OrvRegistrationResponse::ERROR,
                  OrvRegistrationResponse::SERVICE_REGISTRY_ERROR, std::move(response));
}

/// Moves the callbacks that wait for the withdrawal into `callbacks`.
void OrvServiceRegistryClient::recordRefusal(std::uint64_t id, const HttpResponse& response,
                                             Callbacks& callbacks) {
    const utility::MutexLock lock(mutex);
    const auto record = mapRegistryCallback->find(id);
    if (!record) {
        logger->logError(false)
            << "handleDeleteResponse called but id not found in mapRegistryCallback. id=" << id;
        return;
    }
    upkeep->failLocked(id, *record->requestContainer, record->facts,
                       RegistrationFacts::failureOf("DELETE", response, timer.now()));
    record->facts.enter(RegistrationStatus::State::Announced, timer.now());
    callbacks = RegistrationData::take(record->unregisterCallbacks);
    record->state = REGISTERED;
}

// An unknown id was removed together with another id of its registration, whose removal called the
// callbacks and the listener.
void OrvServiceRegistryClient::deleteRegistryEntriesAndNotifyListener(std::uint64_t id,
                                                                      Callbacks& callbacks) {
    std::shared_ptr<RegistrationData> record;
    Tasks notification;
    {
        const utility::MutexLock lock(mutex);
        record = mapRegistryCallback->find(id);
        if (!record) {
            return;
        }
        Tasks events;
        record->ids.forEach([&](std::uint64_t one) {
            Upkeep::lockIsHeld();
            events.splice(events.end(),
                          upkeep->eventLocked(one, *record->requestContainer, record->facts,
                                              RegistrationEvent::Kind::Withdrawn));
        });
        notification = notificationLocked(record->requestContainer->serviceCreate, false);
        callbacks = RegistrationData::take(record->unregisterCallbacks);
        mapRegistryCallback->eraseAll(*record);
        notifyIfEmptyLocked();
        callbackExecutor.add(std::move(events));
    }
    callbackExecutor.add(std::move(notification));
}

// Only the removal of the last one: the withdrawal at the end, which waits for it, repeats what was
// refused each time it wakes.
void OrvServiceRegistryClient::notifyIfEmptyLocked() {
    if (mapRegistryCallback->begin() == mapRegistryCallback->end()) {
        empty.notify_all();
    }
}

bool OrvServiceRegistryClient::isUnregistering(const RegistrationState& state) {
    return state.isUnregistering();
}

}  // namespace orvx::serviceregistryclient
