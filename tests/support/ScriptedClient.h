#pragma once

#include "OrvServiceRegistryClient.h"

#include <functional>
#include <memory>
#include <utility>

namespace orvx::serviceregistryclient {

/// The library's client, with asynchronous registrations that a function of the test replaces.
class ScriptedClient : public OrvServiceRegistryClient {
  public:
    using OrvServiceRegistryClient::OrvServiceRegistryClient;
    using OrvServiceRegistryClient::registerServiceAtRegistry;

    UnregisterHandle registerServiceAtRegistry(
        const common::ServiceInfo& serviceInfo,
        const std::shared_ptr<common::ServiceCreate>& service, ResponseCallback callback) override {
        return onRegister(serviceInfo, service, std::move(callback));
    }
    /// The replaced registration of the library's client.
    UnregisterHandle registerForReal(const common::ServiceInfo& serviceInfo,
                                     const std::shared_ptr<common::ServiceCreate>& service,
                                     ResponseCallback callback) {
        return OrvServiceRegistryClient::registerServiceAtRegistry(serviceInfo, service,
                                                                   std::move(callback));
    }

    std::function<UnregisterHandle(const common::ServiceInfo&,
                                   const std::shared_ptr<common::ServiceCreate>&, ResponseCallback)>
        onRegister;
};

}  // namespace orvx::serviceregistryclient
