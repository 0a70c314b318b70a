#pragma once

#include "ChildProcess.h"
#include "ClientTestAccess.h"
#include "RecordingLogger.h"
#include "ScriptedClient.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>

namespace orvx::serviceregistryclient {

using Model = std::shared_ptr<common::ServiceModel>;
using Service = std::shared_ptr<common::ServiceCreate>;
using Response = OrvRegistrationResponse;
using ResponseCallback = IOrvServiceRegistryClient::ResponseCallback;
using ServiceCallback = IOrvServiceRegistryClient::ServiceCallback;
using ServiceSet = IOrvServiceRegistryClient::ServiceSet;
using Handle = IOrvServiceRegistryClient::UnregisterHandle;

inline const Response ok(Response::OK, Response::NONE);

/// A service without a name is refused by the client itself, on its callback thread.
inline Service service(const std::string& name = "") {
    return std::make_shared<common::ServiceCreate>(std::make_unique<common::XObject>("", name, ""));
}
inline ServiceSet makeServices(int count) {
    ServiceSet services;
    while (count-- > 0) {
        services.insert(service());
    }
    return services;
}

/// A real client, with registrations that a test may replace. Options are set on `context` before
/// start().
class SyncTest : public ::testing::Test {
  protected:
    SyncTest() {
        context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context.setOrvServiceRegistryClientFactory(makeScriptedClientFactory(context));
    }

    void start() { context.init(); }
    ScriptedClient& client() {
        return dynamic_cast<ScriptedClient&>(*context.getServiceRegistryClient());
    }
    ClientTestAccess access() { return ClientTestAccess(client()); }
    /// Runs the task on the client's callback thread.
    void onCallbackThread(std::function<void()> task) {
        client().registerForReal(registry, service(),
                                 [task = std::move(task)](const Response&) { task(); });
    }

    OrvServiceRegistryContext context;
    const common::ServiceInfo registry{"registry", "127.0.0.1", 0};
};

}  // namespace orvx::serviceregistryclient
