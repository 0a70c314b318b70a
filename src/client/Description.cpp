// Builds descriptions from an endpoint. Entered by the user's threads; reads constants only, no
// lock.

#include "OrvServiceRegistryClient.h"

#include <orvx/common/XObject.h>

namespace orvx::serviceregistryclient {

// Calls the other form through the virtual interface, so that an override is used.
common::ServiceCreate OrvServiceRegistryClient::getServiceCreate(
    const common::ServiceInfo& serviceInfo) {
    return *getSharedServiceCreate(serviceInfo);
}

std::shared_ptr<common::ServiceCreate> OrvServiceRegistryClient::getSharedServiceCreate(
    const common::ServiceInfo& serviceInfo) {
    const std::string uri =
        (registerWithPrefix ? serviceInfo.getPrefix() : "/") + serviceInfo.getName();
    auto service = std::make_shared<common::ServiceCreate>(
        std::make_unique<common::XObject>("", serviceInfo.getName(), uri));
    service->updateServiceInfo(serviceInfo);
    service->setPort(serviceInfo.getPort());
    if (!serviceInfo.getVersion().isEmpty()) {
        service->setVersions({serviceInfo.getVersion().asString()});
    }
    return service;
}

}  // namespace orvx::serviceregistryclient
