// Withdraws all registrations, in both forms. Entered by the user's threads; answers are collected
// on the callback thread. The lock is held only to take the snapshot: services that are registered
// later are not withdrawn.

#include "RegistrationTable.h"
#include "ServiceCollectionData.h"
#include "Upkeep.h"

#include <utility>

namespace orvx::serviceregistryclient {

using common::ServiceCreate;
using common::ServiceModel;

std::map<std::uint64_t, std::shared_ptr<ServiceCreate>> OrvServiceRegistryClient::snapshot() {
    std::map<std::uint64_t, std::shared_ptr<ServiceCreate>> registrations;
    const utility::MutexLock lock(mutex);
    for (const auto& [id, record] : *mapRegistryCallback) {
        registrations.emplace_hint(registrations.end(), id,
                                   record->requestContainer->serviceCreate);
    }
    return registrations;
}

void OrvServiceRegistryClient::unregisterAllServicesFromRegistry(ServiceCallback callback) {
    for (const auto& [id, service] : upkeep->descriptions()) {
        upkeep->withdraw(id, [callback, service = service](OrvRegistrationResponse response) {
            callback(service, std::move(response));
        });
    }
}

std::pair<bool, std::map<std::shared_ptr<ServiceModel>, OrvRegistrationResponse>>
OrvServiceRegistryClient::unregisterAllServicesFromRegistry() {
    return upkeep->withdrawAllAndWait();
}

std::pair<bool, std::map<std::shared_ptr<ServiceModel>, OrvRegistrationResponse>>
OrvServiceRegistryClient::withdrawAllAndWait() {
    return executeSynchronousServiceCollectionUnregistration(
        snapshot(),
        [self = reference](std::uint64_t id, const std::shared_ptr<ServiceCreate>& service,
                           const ServiceCallback& collect) {
            const bool isCalled = self->call([&](OrvServiceRegistryClient& client) {
                client.internal_unregisterFromRegistry(
                    id, [collect, service](OrvRegistrationResponse response) {
                        collect(service, std::move(response));
                    });
            });
            if (!isCalled) {
                collect(service, {OrvRegistrationResponse::ERROR,
                                  OrvRegistrationResponse::DELEGATOR_NOT_INITIATED});
            }
        });
}

std::pair<bool, std::map<std::shared_ptr<ServiceModel>, OrvRegistrationResponse>>
OrvServiceRegistryClient::executeSynchronousServiceCollectionUnregistration(
    const std::map<std::uint64_t, std::shared_ptr<ServiceCreate>>& registrations,
    const std::function<void(std::uint64_t, std::shared_ptr<ServiceCreate>, ServiceCallback)>&
        unregisterOne) {
    const ServiceCollectionCall<ServiceCollectionRegistryData> call;
    const OrvRegistrationResponse waited = makeSynchronizedCallRegistrationResponse(
        [&](const Promise& promise) {
            const ServiceCallback collect = call.collector(promise, registrations.size());
            for (const auto& [id, service] : registrations) {
                unregisterOne(id, service, collect);
            }
        },
        syncCallUnregisterTimeout);
    return call.take(waited);
}

}  // namespace orvx::serviceregistryclient
