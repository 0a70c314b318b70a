#pragma once

#include "FunctionFactory.h"
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

/// A factory of clients for this context. Their registrations are not replaced until a test sets
/// `onRegister`.
inline std::shared_ptr<FunctionFactory> makeScriptedClientFactory(
    OrvServiceRegistryContext& context) {
    return std::make_shared<FunctionFactory>([&context](auto loggers, bool withPrefix) {
        auto made = std::make_unique<ScriptedClient>(std::move(loggers), withPrefix, context);
        made->onRegister = [scripted = made.get()](const auto& info, const auto& service,
                                                   auto callback) {
            return scripted->registerForReal(info, service, std::move(callback));
        };
        return made;
    });
}

}  // namespace orvx::serviceregistryclient
