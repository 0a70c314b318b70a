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

/// An outcome as one text: "OK/NONE 201", "ERROR/SERVICE_REGISTRY_ERROR CUT_SHORT", with the status
/// code where there was an answer and the communication status where there was none.
std::string describe(const OrvRegistrationResponse& outcome);

/// What describe() makes of a success, and of a refusal: `why` is a status code or a communication
/// status.
const std::string kRegistered = "OK/NONE 201";
const std::string kWithdrawn = "OK/NONE 200";
std::string refused(const std::string& why);

/// The answer to a registration: 201 and this location.
std::string created(const std::string& location);

/// A registry that does what is asked: "/uuid-<last segment>" is the location of what is put.
Script obey(const Request& request);

/// A client and a registry of which the test decides what it answers; it obeys where nothing else
/// is said. Without retries and checks until a test switches them on. Options are set on `context`
/// and `http` before start().
///
/// At the end each test proves that deinit() is quick, that no connection is left, and that there
/// was no outcome beyond those that it took.
class ProtocolTest : public ::testing::Test {
  protected:
    using Handle = IOrvServiceRegistryClient::UnregisterHandle;
    using Service = std::shared_ptr<common::ServiceCreate>;

    /// deinit() promises a second in addition to the callback that is running. Sanitizers take
    /// their time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    static constexpr milliseconds kStopBound{5000};
#else
    static constexpr milliseconds kStopBound{1500};
#endif
    /// A time-out that a test waits for, and that a good registration still keeps.
    static constexpr milliseconds kShort{1500};

    ProtocolTest();
    void TearDown() override;

    void start();
    OrvServiceRegistryClient& client();
    /// Ends the client with the context, within the bound.
    void stop();
    /// Stops the client, within the bound, and starts it again.
    void restart();

    common::ServiceInfo registry() const {
        return registryAt(server.port());
    }
    static common::ServiceInfo registryAt(std::uint16_t port,
                                          const std::string& host = "127.0.0.1") {
        return {"registry", host, port};
    }
    static Service service(const std::string& name, const std::string& uri = "");

    /// Adds what it is told to `outcomes`, after the label.
    IOrvServiceRegistryClient::ResponseCallback record(const std::string& label = "");
    Handle registerService(const std::string& name, const std::string& label = "") {
        return client().registerServiceAtRegistry(registry(), service(name), record(label));
    }
    /// Registers a service of another name each time, and waits for the outcome.
    std::string outcomeAt(const common::ServiceInfo& where);
    std::string outcome() {
        return outcomeAt(registry());
    }
    /// The outcome when this is the registry's next answer.
    std::string outcomeOf(Script answer);
    /// Registers, which must succeed.
    Handle registered(const std::string& name);
    std::string outcomeOfWithdrawal(const Handle& handle);
    /// That a client with a past registers another service as if there had been nothing.
    void expectItWorks() {
        EXPECT_EQ(outcome(), kRegistered);
    }

    /// That the listener was told this and, so far, nothing else.
    void expectNotifications(const Recorder::Lines& expected);

    /// "PUT /lamp" and so on.
    std::vector<std::string> requestLines() const;
    /// Waits for a request with this line.
    void expectRequest(const std::string& line) const;
    /// All lines of the log so far.
    const std::vector<testing::LogLine>& logged();
    /// Waits for a line of the log that contains this text.
    void expectLogged(const std::string& text);

    HostileServer server;
    HttpConfig http;
    const std::shared_ptr<testing::RecordingLoggerFactory> log =
        std::make_shared<testing::RecordingLoggerFactory>();
    // Shared with the callbacks, which must not need the test.
    const std::shared_ptr<Recorder> outcomes = std::make_shared<Recorder>();
    const std::shared_ptr<Recorder> notifications = std::make_shared<Recorder>();
    std::unique_ptr<OrvServiceRegistryContext> context =
        std::make_unique<OrvServiceRegistryContext>();

  private:
    int services_ = 0;
    std::vector<testing::LogLine> logged_;
};

}  // namespace orvx::serviceregistryclient
