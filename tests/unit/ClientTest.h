#pragma once

#include "ClientTestAccess.h"
#include "RecordingLogger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>
#include <orvx/simulation/World.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace orvx::serviceregistryclient {

/// The outcome that a callback received. `http` is the status code of the attached answer, or -1
/// without one.
struct Outcome {
    std::string label;
    std::string status;
    std::string code;
    int http;

    bool operator==(const Outcome& other) const {
        return label == other.label && status == other.status && code == other.code &&
               http == other.http;
    }
    friend std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
        return stream << outcome.label << ' ' << outcome.status << '/' << outcome.code << ' '
                      << outcome.http;
    }
};

/// One call of the status listener.
struct Notification {
    std::string name;
    std::string id;
    bool registered;

    bool operator==(const Notification& other) const {
        return name == other.name && id == other.id && registered == other.registered;
    }
    friend std::ostream& operator<<(std::ostream& stream, const Notification& notification) {
        return stream << notification.name << " id '" << notification.id << "' "
                      << (notification.registered ? "registered" : "gone");
    }
};

/// A client in simulated time and network. Options are set on `context` before start().
class ClientTest : public ::testing::Test {
  protected:
    using Milliseconds = std::chrono::milliseconds;
    using Seconds = std::chrono::seconds;
    using Handle = IOrvServiceRegistryClient::UnregisterHandle;
    using State = RegistrationStatus::State;

    ClientTest() { context.setLoggerFactory(log); }

    void start() { context.init(); }
    OrvServiceRegistryClient& client() {
        return dynamic_cast<OrvServiceRegistryClient&>(*context.getServiceRegistryClient());
    }
    ClientTestAccess access() { return ClientTestAccess(client()); }
    ClientTestAccess::Request request(std::uint64_t id) { return access().request(id); }
    /// The public status of a registration. Throws std::out_of_range for an unknown id.
    RegistrationStatus statusOf(std::uint64_t id) const {
        for (const RegistrationStatus& registration : context.getRegistrations()) {
            if (registration.requestId == id) {
                return registration;
            }
        }
        throw std::out_of_range("no registration " + std::to_string(id));
    }
    RegistrationStatus::State stateOf(std::uint64_t id) const { return statusOf(id).state; }
    std::string uuidOf(std::uint64_t id) const { return statusOf(id).uuid; }
    /// The name in the record that the id leads to. The ids of merged registrations lead to one
    /// record, with the name of the first.
    std::string nameOf(std::uint64_t id) const { return statusOf(id).name; }
    /// The request ids of all registrations.
    std::vector<std::uint64_t> registrationIds() const {
        std::vector<std::uint64_t> ids;
        for (const RegistrationStatus& registration : context.getRegistrations()) {
            ids.push_back(registration.requestId);
        }
        return ids;
    }

    static std::shared_ptr<common::ServiceCreate> service(const std::string& name,
                                                          const std::string& uri = "") {
        return std::make_shared<common::ServiceCreate>(
            std::make_unique<common::XObject>("", name, uri));
    }

    /// A callback that adds its outcome to `outcomes`.
    virtual IOrvServiceRegistryClient::ResponseCallback record(const std::string& label) {
        return [this, label](const OrvRegistrationResponse& response) {
            EXPECT_EQ(world.currentThread(), "ORVX_SRCBExec");
            outcomes.push_back(outcome(label, response));
        };
    }
    static Outcome outcome(const std::string& label, const OrvRegistrationResponse& response) {
        return {
            label, OrvRegistrationResponse::statusString(response.status),
            OrvRegistrationResponse::errorCodeString(response.errorCode),
            response.httpResponse ? static_cast<int>(response.httpResponse->getStatusCode()) : -1};
    }
    /// A listener that adds its arguments to `notifications`, and keeps the description.
    IOrvServiceRegistryClient::StatusListener listen() {
        return [this](const std::shared_ptr<const common::ServiceModel>& model, bool registered) {
            EXPECT_EQ(world.currentThread(), "ORVX_SRCBExec");
            notifications.push_back({model->getName(), model->getId(), registered});
            notifiedDescription = model;
        };
    }

    /// Registers `name`; its callback records under the name.
    Handle registerService(const std::string& name) {
        return client().registerServiceAtRegistry(registry, service(name), record(name));
    }
    /// Registers `name`, answers 201 with this uuid, and runs all callbacks.
    Handle registered(const std::string& name, const std::string& uuid) {
        Handle handle = registerService(name);
        next("PUT").answer(201, location("/" + uuid));
        world.settle();
        return handle;
    }
    /// Registers "echo", gives its PUT this answer, and runs all callbacks.
    void answerPut(const communication::HttpResponse& response) {
        registerService("echo");
        next("PUT").answer(response);
        world.settle();
    }
    /// The registration of "echo" has failed with this HTTP status, and nothing is planned.
    void expectGivenUp(int status) {
        EXPECT_THAT(takeOutcomes(), ::testing::ElementsAre(Outcome{
                                        "echo", "ERROR", "SERVICE_REGISTRY_ERROR", status}));
        EXPECT_THAT(registrationIds(), ::testing::IsEmpty());
        EXPECT_THAT(world.takeAddedDelays(), ::testing::IsEmpty());
        EXPECT_THAT(world.pendingDelays(), ::testing::IsEmpty());
    }
    static std::string location(const std::string& value) { return "Location: " + value + "\r\n"; }
    /// The body of the PUT of a description.
    static std::string json(const common::ServiceModel& model) {
        std::ostringstream stream;
        model.getGenericObject().toJSONStream(stream, false);
        return stream.str();
    }
    static communication::HttpResponse answer(int status, const std::string& headerLines = "",
                                              const std::string& body = "") {
        return {static_cast<communication::HttpResponse::StatusCode>(status), headerLines, body};
    }

    /// Advances the clock by the check interval, and takes the HEAD that is due then.
    simulation::Request dueHead() {
        world.advance(context.getCheckInterval());
        return next("HEAD");
    }
    /// The next check of the only registered service finds the entry lost, so that its PUT is sent
    /// again.
    void loseEntry() { dueHead().answer(404); }

    /// Takes the next request that was sent, which must have this method.
    simulation::Request next(const std::string& method) {
        const std::optional<simulation::Request> request = world.takeRequest();
        if (!request) {
            throw std::runtime_error("no request was sent, expected " + method);
        }
        EXPECT_EQ(request->method(), method);
        return *request;
    }

    /// Runs all callbacks, and drops everything that was recorded.
    void forgetThePast() {
        world.settle();
        takeOutcomes();
        takeNotifications();
        world.takeAddedDelays();
        log->takeLines();
    }
    /// The outcomes and notifications since the last call.
    std::vector<Outcome> takeOutcomes() { return std::exchange(outcomes, {}); }
    std::vector<Notification> takeNotifications() { return std::exchange(notifications, {}); }

    simulation::World world;
    std::vector<Outcome> outcomes;
    std::vector<Notification> notifications;
    /// The live description that the last notification carried.
    std::shared_ptr<const common::ServiceModel> notifiedDescription;
    const std::shared_ptr<testing::RecordingLoggerFactory> log =
        std::make_shared<testing::RecordingLoggerFactory>();
    const common::ServiceInfo registry{"registry", "127.0.0.1", 8500};
    OrvServiceRegistryContext context;
};

}  // namespace orvx::serviceregistryclient
