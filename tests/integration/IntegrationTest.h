#pragma once

#include "IntegrationSupport.h"
#include "RecordingLogger.h"
#include "Support.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>

namespace orvx::serviceregistryclient {

using nlohmann::json;
using namespace std::chrono_literals;

/// A registry, and a client with real threads and sockets. Options are set on `context` before
/// start().
class IntegrationTest : public ::testing::Test {
  protected:
    IntegrationTest() {
        context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context.setHeadTimeout(1min);  // checks may take long on a busy machine
    }

    /// Starts the client with a listener that writes its arguments into `notifications`.
    void start() {
        context.init();
        client().addServiceRegisterStatusListener(
            [this](const auto& /*service*/, bool isRegistered) {
                notifications.write(isRegistered);
            });
    }
    IOrvServiceRegistryClient& client() { return *context.getServiceRegistryClient(); }

    static common::ServiceInfo at(std::uint16_t port) { return {"registry", "127.0.0.1", port}; }
    /// A callback that writes its outcome into `outcomes`.
    IOrvServiceRegistryClient::ResponseCallback record() {
        return [this](const auto& outcome) { outcomes.write(text(outcome)); };
    }
    json entries() const { return entriesAt(registry.port()); }

    /// Registers a service with a blocking call. Returns a handle that withdraws it asynchronously.
    IOrvServiceRegistryClient::UnregisterHandle registered(const std::string& name,
                                                           std::uint16_t port) {
        IOrvServiceRegistryClient::UnregisterHandle handle;
        EXPECT_EQ(outcomeOf([&](auto callback) {
                      handle = client().registerServiceAtRegistry(at(port), service(name),
                                                                  std::move(callback));
                  }),
                  "OK/NONE");
        return handle;
    }

    registry::RunningRegistry registry;
    utility::test::Journal<std::string> outcomes;
    utility::test::Journal<bool> notifications;
    OrvServiceRegistryContext context;
};

}  // namespace orvx::serviceregistryclient
