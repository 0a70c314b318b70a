#pragma once

#include "DeadResolver.h"
#include "Eventually.h"
#include "HostileServer.h"
#include "OrvServiceRegistryClient.h"
#include "Recorder.h"
#include "RecordingLogger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace orvx::serviceregistryclient {

using communication::HttpConfig;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::eventually;
using testing::HostileServer;
using testing::Recorder;
using testing::Request;
using testing::response;
using testing::Script;

/// An outcome as text, for example "OK/NONE 201" or "ERROR/SERVICE_REGISTRY_ERROR CUT_SHORT": with
/// the status code if there was an answer, otherwise with the communication status.
std::string describe(const OrvRegistrationResponse& outcome);

/// The text of describe() for a success, and for a refusal: `why` is a status code or a
/// communication status.
const std::string kRegistered = "OK/NONE 201";
const std::string kWithdrawn = "OK/NONE 200";
std::string refused(const std::string& why);

/// The answer to a registration: 201 and this location.
std::string created(const std::string& location);

/// A registry that carries out each request. The location of a PUT is "/uuid-<last segment>".
Script obey(const Request& request);

/// A client, and a registry whose answers the test decides; without a script the registry carries
/// out requests. Retries and checks are off unless a test enables them. Options are set on
/// `context` and `http` before start().
///
/// At the end each test verifies that deinit() is quick, that no connection is left, and that there
/// was no other outcome than those that the test took.
class ProtocolTest : public ::testing::Test {
  protected:
    using Handle = IOrvServiceRegistryClient::UnregisterHandle;
    using Service = std::shared_ptr<common::ServiceCreate>;

    /// A time-out that a test waits for, and that is long enough for a successful registration.
    static constexpr milliseconds kShort{1500};

    ProtocolTest();
    void TearDown() override;

    void start();
    OrvServiceRegistryClient& client();
    /// Ends the client with the context, within the time limit.
    void stop();
    /// Stops the client within the time limit, and starts it again.
    void restart();

    common::ServiceInfo registry() const { return registryAt(server.port()); }
    static common::ServiceInfo registryAt(std::uint16_t port,
                                          const std::string& host = "127.0.0.1") {
        return {"registry", host, port};
    }
    static Service service(const std::string& name, const std::string& uri = "");

    /// A callback that adds the label and its outcome to `outcomes`.
    IOrvServiceRegistryClient::ResponseCallback record(const std::string& label = "");
    Handle registerService(const std::string& name, const std::string& label = "") {
        return client().registerServiceAtRegistry(registry(), service(name), record(label));
    }
    /// Registers a service with a new name, and waits for the outcome.
    std::string outcomeAt(const common::ServiceInfo& where);
    std::string outcome() { return outcomeAt(registry()); }
    /// The outcome of a registration that gets this answer.
    std::string outcomeOf(Script answer);
    /// Registers a service, which must succeed.
    Handle registered(const std::string& name);
    std::string outcomeOfWithdrawal(const Handle& handle);
    /// Expects that the client registers another service successfully after everything that has
    /// happened.
    void expectItWorks() { EXPECT_EQ(outcome(), kRegistered); }

    /// Expects these notifications of the listener, and no others so far.
    void expectNotifications(const Recorder::Lines& expected);

    /// The request lines, for example "PUT /lamp".
    std::vector<std::string> requestLines() const;
    /// Waits for a request with this line.
    void expectRequest(const std::string& line) const;
    /// All log lines so far.
    const std::vector<testing::LogLine>& logged();
    /// Waits for a log line that contains this text.
    void expectLogged(const std::string& text);

    HostileServer server;
    HttpConfig http;
    const std::shared_ptr<testing::RecordingLoggerFactory> log =
        std::make_shared<testing::RecordingLoggerFactory>();
    // Shared with the callbacks, which may outlive the test.
    const std::shared_ptr<Recorder> outcomes = std::make_shared<Recorder>();
    const std::shared_ptr<Recorder> notifications = std::make_shared<Recorder>();
    std::unique_ptr<OrvServiceRegistryContext> context =
        std::make_unique<OrvServiceRegistryContext>();

  private:
    int services_ = 0;
    std::vector<testing::LogLine> logged_;
};

}  // namespace orvx::serviceregistryclient
