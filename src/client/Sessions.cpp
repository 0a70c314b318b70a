// One HTTP session for each registry endpoint, made on first use and kept. Entered by the threads
// that send requests: the user's, the timer's and the I/O thread. The caller holds the lock.

#include "RegistrationTable.h"

#include <new>

namespace orvx::serviceregistryclient {

// The key is stored before the session is made, so that a failure is remembered: an endpoint
// without a session is not tried again.
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
        sessions.erase(entry);  // running out of memory says nothing about the endpoint
        throw;
    }
}

// An endpoint without a session gets the unavailable session, which answers each request on the I/O
// thread with NoSession.
std::shared_ptr<communication::IClientHttpSession> OrvServiceRegistryClient::usableSessionLocked(
    const common::ServiceInfo& serviceInfo) {
    try {
        if (auto session = createOrGetRegistryClientSession(serviceInfo)) {
            return session;
        }
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        // An empty session is stored; the failure is logged once, here.
        logger->logError(false) << "no session can be made for service registry "
                                << serviceInfo.getKey();
    }
    return communicationContext.getUnavailableSession();
}

/// The session for the next PUT or DELETE of a registration; the request counts as sent. Null if
/// there is nothing to send: the client is stopped, or the id is unknown, which is logged with the
/// name of `caller`.
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

// An empty session stays empty: no request can ever be sent to this endpoint.
bool OrvServiceRegistryClient::isWithoutSessionLocked(
    const common::ServiceInfo& serviceInfo) const {
    const auto entry = sessions.find(serviceInfo.getKey());
    return entry != sessions.end() && !entry->second;
}

}  // namespace orvx::serviceregistryclient
