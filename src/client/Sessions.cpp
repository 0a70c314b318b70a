// One HTTP session for each registry endpoint, made on first use and kept. Entered by the threads
// that send: the user's, the timer's, the I/O thread. The caller holds the lock.

#include "RegistrationTable.h"

#include <new>

namespace orvx::serviceregistryclient {

// The key is stored before the session is made, so that a failure is remembered: an endpoint for
// which no session could be made is not tried again.
std::shared_ptr<communication::IClientHttpSession>
OrvServiceRegistryClient::createOrGetRegistryClientSession(const common::ServiceInfo& serviceInfo) {
    const auto [entry, isNew] = sessions.try_emplace(serviceInfo.getKey());
    if (!isNew) {
        return entry->second;
    }
    try {
        entry->second = communicationContext.getClientHttpFactory().createSession(
            serviceInfo.getHost(), serviceInfo.getPort(), communicationContext.getHttpConfig(),
            communicationContext.getHealthCheck(), communicationContext.getClientStatistics());
        return entry->second;
    } catch (const std::bad_alloc&) {
        sessions.erase(entry);  // it says nothing of the endpoint
        throw;
    }
}

// What has no session is answered like a request that could not be sent, by the I/O thread.
std::shared_ptr<communication::IClientHttpSession> OrvServiceRegistryClient::usableSessionLocked(
    const common::ServiceInfo& serviceInfo) {
    try {
        if (auto session = createOrGetRegistryClientSession(serviceInfo)) {
            return session;
        }
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        // Kept as an empty session; said once, here.
        logger->logError(false) << "no session can be made for service registry "
                                << serviceInfo.getKey();
    }
    return communicationContext.getUnavailableSession();
}

/// The session for the next PUT or DELETE of a registration, which counts as sent from here on.
/// Null when nothing is to be sent: the client is stopped, or the id is gone, which `caller` logs.
std::shared_ptr<communication::IClientHttpSession> OrvServiceRegistryClient::beginRequestLocked(
    std::uint64_t id, const RequestContainer& request, const char* caller) {
    if (!initiated) {
        return nullptr;
    }
    const auto record = mapRegistryCallback->find(id);
    if (!record) {
        logger->logWarning(false) << caller
                                  << " called but id not found in mapRegistryCallback. id=" << id;
        return nullptr;
    }
    record->facts.requestSent();
    return usableSessionLocked(*request.serviceInfo);
}

// An empty entry stays empty: a request to this endpoint can never be sent.
bool OrvServiceRegistryClient::isWithoutSessionLocked(
    const common::ServiceInfo& serviceInfo) const {
    const auto entry = sessions.find(serviceInfo.getKey());
    return entry != sessions.end() && !entry->second;
}

}  // namespace orvx::serviceregistryclient
