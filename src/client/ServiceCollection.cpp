// Registers a set of services, in both forms. Each service is registered through the virtual
// interface, so that an override is used. Entered by the user's threads; answers are collected on
// the callback thread. The client's lock is not taken.

#include "ServiceCollectionData.h"
#include "Upkeep.h"

#include <utility>

namespace orvx::serviceregistryclient {

using common::ServiceCreate;
using common::ServiceModel;

std::map<std::shared_ptr<ServiceModel>, IOrvServiceRegistryClient::UnregisterHandle>
OrvServiceRegistryClient::registerServicesAtRegistry(const common::ServiceInfo& serviceInfo,
                                                     const ServiceSet& services,
                                                     ServiceCallback callback) {
    std::map<std::shared_ptr<ServiceModel>, UnregisterHandle> handles;
    for (const std::shared_ptr<ServiceCreate>& service : services) {
        // First, so that every registration has a handle.
        UnregisterHandle& handle = handles[service];
        handle = registerServiceAtRegistry(serviceInfo, service,
                                           [callback, service](OrvRegistrationResponse response) {
                                               callback(service, std::move(response));
                                           });
    }
    return handles;
}

std::pair<bool, std::map<std::shared_ptr<ServiceModel>, SyncOrvRegistrationResponse>>
OrvServiceRegistryClient::executeSynchronousServiceCollectionRegistryCall(
    const ServiceSet& services,
    const std::function<void(std::shared_ptr<ServiceCreate>, ServiceCallback)>& registerOne) {
    const ServiceCollectionCall<ServiceCollectionSyncRegistryData> call;
    const OrvRegistrationResponse waited = makeSynchronizedCallRegistrationResponse(
        [&](const Promise& promise) {
            const ServiceCallback collect = call.collector(promise, services.size());
            for (const std::shared_ptr<ServiceCreate>& service : services) {
                registerOne(service, collect);
            }
        },
        std::chrono::milliseconds::zero());
    return call.take(waited);
}

std::pair<bool, std::map<std::shared_ptr<ServiceModel>, SyncOrvRegistrationResponse>>
OrvServiceRegistryClient::registerServicesAtRegistry(const common::ServiceInfo& serviceInfo,
                                                     const ServiceSet& services) {
    return upkeep->registerAllAndWait(serviceInfo, services);
}

std::pair<bool, std::map<std::shared_ptr<ServiceModel>, SyncOrvRegistrationResponse>>
OrvServiceRegistryClient::registerAllAndWait(const common::ServiceInfo& serviceInfo,
                                             const ServiceSet& services) {
    const std::chrono::milliseconds unregisterTimeout = syncCallUnregisterTimeout;
    // Made now, because the client may end during the loop.
    const UnregisterHandle ended = handleOfUnnamedService();
    std::map<std::shared_ptr<ServiceModel>, UnregisterHandle> handleTable;
    auto result = executeSynchronousServiceCollectionRegistryCall(
        services, [&, self = reference](const std::shared_ptr<ServiceCreate>& service,
                                        const ServiceCallback& collect) {
            UnregisterHandle& handle = handleTable[service];
            const bool isCalled = self->call([&](OrvServiceRegistryClient& client) {
                handle = client.registerServiceAtRegistry(
                    serviceInfo, service, [collect, service](OrvRegistrationResponse response) {
                        collect(service, std::move(response));
                    });
            });
            if (!isCalled) {
                handle = ended;
                collect(service, {OrvRegistrationResponse::ERROR,
                                  OrvRegistrationResponse::DELEGATOR_NOT_INITIATED});
            }
        });
    for (auto& [service, outcome] : result.second) {
        outcome.unregister = synchronousUnregister(handleTable[service], unregisterTimeout);
    }
    return result;
}

}  // namespace orvx::serviceregistryclient
