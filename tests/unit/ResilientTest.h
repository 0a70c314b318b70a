#pragma once

#include "ClientTest.h"

namespace orvx::serviceregistryclient {

/// One event that the registration listener received.
struct Event {
    std::string kind;
    std::string name;
    std::string state;

    bool operator==(const Event& other) const {
        return kind == other.kind && name == other.name && state == other.state;
    }
    friend std::ostream& operator<<(std::ostream& stream, const Event& event) {
        return stream << event.kind << ' ' << event.name << ' ' << event.state;
    }
};

/// A client with resilience in simulated time. The tests answer each request by hand.
class ResilientTest : public ClientTest {
  protected:
    ResilientTest() {
        context.enableResilience(true);
        context.setRegistrationListener([this](const RegistrationEvent& event) {
            EXPECT_EQ(world.currentThread(), "ORVX_SRCBExec");
            events.push_back({registrationEventToString(event.kind), event.status.name,
                              registrationStateToString(event.status.state)});
        });
    }

    /// The callback may also run on the thread that stops the client.
    IOrvServiceRegistryClient::ResponseCallback record(const std::string& label) override {
        return [this, label](const OrvRegistrationResponse& response) {
            EXPECT_THAT(world.currentThread(), ::testing::AnyOf("ORVX_SRCBExec", ""));
            outcomes.push_back(outcome(label, response));
        };
    }
    using ClientTest::registerService;
    Handle registerService(const std::string& name, const std::string& uri,
                           const std::string& label) {
        return client().registerServiceAtRegistry(registry, service(name, uri), record(label));
    }
    /// Advances the clock until a request is sent, which must have this method. Returns the time
    /// that passed.
    Milliseconds waitFor(const std::string& method, Milliseconds bound = Milliseconds(60000)) {
        const Milliseconds begin = world.now();
        while (world.requestsToTake() == 0) {
            const auto delay = world.nextDelay();
            if (!delay || world.now() + *delay - begin > bound) {
                ADD_FAILURE() << "no " << method << " in time";
                break;
            }
            world.advance(*delay);
        }
        last = next(method);
        return world.now() - begin;
    }
    void answer(int status, const std::string& headerLines = "") {
        last->answer(status, headerLines);
        world.settle();
    }
    void fail(communication::CommunicationStatus status) {
        last->answer(communication::HttpResponse(status));
        world.settle();
    }
    /// Waits for the request, and answers it. Returns the time that passed.
    Milliseconds expect(const std::string& method, const std::string& path, int status,
                        const std::string& uuid = "") {
        const Milliseconds time = waitFor(method);
        EXPECT_EQ(last->path(), path);
        answer(status, uuid.empty() ? "" : location("/" + uuid));
        return time;
    }
    void expectNothingFor(Milliseconds duration) {
        const Milliseconds end = world.now() + duration;
        world.advance(end - world.now());
        EXPECT_EQ(world.requestsToTake(), 0U);
    }
    RegistrationStatus status(std::size_t index = 0) {
        return context.getRegistrations().at(index);
    }
    std::string state(std::size_t index = 0) {
        return registrationStateToString(status(index).state);
    }
    std::vector<Event> takeEvents() { return std::exchange(events, {}); }

    std::optional<simulation::Request> last;
    std::vector<Event> events;
};

}  // namespace orvx::serviceregistryclient
