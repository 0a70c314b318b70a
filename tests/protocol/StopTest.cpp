// Stops in every phase of a request: they are quick, no callback runs afterwards, the registrations
// are unchanged, and the client can be started again. The fixture measures every stop.
//
// Threads: the test's, the client's and the server's.

#include "Process.h"
#include "ProtocolTest.h"

#include <algorithm>
#include <future>

namespace orvx::serviceregistryclient {
namespace {

using testing::BlackHole;
using testing::DeadResolver;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class AStop : public ProtocolTest {
  protected:
    using State = RegistrationStatus::State;

    /// The states of all registrations.
    std::vector<State> states() const {
        std::vector<State> states;
        for (const RegistrationStatus& registration : context->getRegistrations()) {
            states.push_back(registration.state);
        }
        return states;
    }
    /// Stops the client, starts it again, and registers another service. Nothing else may have
    /// happened.
    void expectStopAndStart(const std::vector<State>& expected) {
        EXPECT_EQ(states(), expected);
        restart();
        EXPECT_EQ(states(), expected);
        EXPECT_THAT(outcomes->rest(), IsEmpty());
        server.onRequest(obey);
        expectItWorks();
        EXPECT_THAT(states(), SizeIs(expected.size() + 1));
    }
};

TEST_F(AStop, KeepsTheRegistrationsThatWaitForAConnection) {
    server.onRequest([](const Request&) { return Script().silence(); });
    start();
    for (int i = 0; i < 40; ++i) {
        registerService("lamp-" + std::to_string(i));
    }
    ASSERT_TRUE(server.waitForRequests(16));
    expectStopAndStart(std::vector<State>(40, State::Announcing));
    EXPECT_EQ(server.counters().requests, 17U);
}

TEST_F(AStop, KeepsTheRegistrationWhoseRegistryIsLookedUp) {
    const DeadResolver resolver;
    start();
    client().registerServiceAtRegistry(registryAt(server.port(), "registry.silent.test"),
                                       service("lamp"), record());
    ASSERT_TRUE(resolver.waitForLookups(1));
    expectStopAndStart({State::Announcing});
    EXPECT_EQ(resolver.waiting(), 1U);
}

TEST_F(AStop, KeepsTheRegistrationWhoseConnectionIsBeingMade) {
    const BlackHole hole;
    start();
    client().registerServiceAtRegistry(registryAt(hole.port()), service("lamp"), record());
    ASSERT_TRUE(eventually([&hole] { return testing::isConnecting(hole.port()); }));
    expectStopAndStart({State::Announcing});
}

TEST_F(AStop, KeepsTheRegistrationWhoseRequestIsBeingSent) {
    server.nextConnection(Script().readBytes(100).waitForRelease("end").silence());
    start();
    const auto big = service("big");
    big->setDescription(std::string(6 << 20, 'x'));
    client().registerServiceAtRegistry(registry(), big, record());
    ASSERT_TRUE(server.waitForConnections(1));
    expectStopAndStart({State::Announcing});
    server.release("end");
}

TEST_F(AStop, KeepsTheRegistrationThatWaitsForItsAnswer) {
    server.nextRequest(Script().silence());
    start();
    registerService("lamp");
    ASSERT_TRUE(server.waitForRequests(1));
    expectStopAndStart({State::Announcing});
}

TEST_F(AStop, KeepsTheRegistrationWhoseAnswerIsIncomplete) {
    start();
    for (const Script& half :
         {Script("HTTP/1.1 201 Cre").silence(), Script("HTTP/1.1 201 Created\r\n").silence(),
          Script(response(201, {{"Location", "/a"}, {"Content-Length", "9"}})).silence(),
          Script().drip(created(std::string(500, 'x')), milliseconds(5))}) {
        const auto requests = server.counters().requests;
        auto expected = states();
        expected.push_back(State::Announcing);
        server.nextRequest(half);
        registerService("lamp");
        ASSERT_TRUE(server.waitForRequests(requests + 1));
        expectStopAndStart(expected);
    }
}

TEST_F(AStop, KeepsTheRegistrationThatWaitsForARetry) {
    context->enableRetry(true);
    context->setRetryInterval(std::chrono::hours(1));
    server.nextRequest(Script("HTTP/1.1 201").close());
    start();
    registerService("lamp");
    expectLogged("retry (1.) request: /lamp");
    expectStopAndStart({State::Announcing});
}

TEST_F(AStop, KeepsTheRegistrationThatIsRetriedWithoutAPause) {
    context->enableRetry(true);
    context->setRetryInterval(milliseconds(0));
    context->setInitialMaxRetryCount(65535);
    server.onRequest([](const Request&) { return Script("HTTP/1.1 201").close(); });
    start();
    registerService("lamp");
    ASSERT_TRUE(server.waitForRequests(10));
    expectStopAndStart({State::Announcing});
}

TEST_F(AStop, KeepsTheServiceThatWaitsForACheck) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(3600));
    start();
    const Handle handle = registered("lamp");
    expectStopAndStart({State::Announced});
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
}

TEST_F(AStop, KeepsTheServiceWhoseCheckIsPending) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    server.nextRequest(created("/uuid"));
    server.nextRequest(Script().silence());
    start();
    const Handle handle = registered("lamp");
    ASSERT_TRUE(server.waitForRequests(2));
    expectStopAndStart({State::Announced});
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
}

TEST_F(AStop, KeepsTheLostServiceThatIsRegisteredAgain) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    server.nextRequest(created("/uuid"));
    server.nextRequest(response(404));
    server.nextRequest(Script().silence());
    start();
    registered("lamp");
    ASSERT_TRUE(server.waitForRequests(3));
    expectStopAndStart({State::Lost});
}

TEST_F(AStop, KeepsTheServiceWhoseWithdrawalIsPending) {
    server.nextRequest(created("/uuid"));
    server.nextRequest(Script().silence());
    start();
    const Handle handle = registered("lamp");
    handle(record());
    ASSERT_TRUE(server.waitForRequests(2));
    expectStopAndStart({State::Withdrawing});
}

TEST_F(AStop, OfTheContextInACallbackAllowsANewStart) {
    start();
    client().registerServiceAtRegistry(registry(), service("lamp"), [this](const auto&) {
        stop();
        outcomes->add("stopped");
    });
    ASSERT_EQ(outcomes->next(), "stopped");
    EXPECT_FALSE(context->isInitiated());
    EXPECT_THAT(notifications->rest(), ::testing::AnyOf(IsEmpty(), ElementsAre("lamp is there")));
    start();
    expectItWorks();
}

TEST_F(AStop, OfTheClientInACallbackAllowsANewStart) {
    start();
    client().registerServiceAtRegistry(registry(), service("lamp"), [this](const auto&) {
        client().deinit();
        client().deinit();
        outcomes->add("stopped");
    });
    ASSERT_EQ(outcomes->next(), "stopped");
    client().init();
    expectItWorks();
}

TEST_F(AStop, OfTheContextInTheListenerAllowsANewStart) {
    start();
    client().addServiceRegisterStatusListener([this](const auto&, bool) {
        stop();
        outcomes->add("stopped");
    });
    client().registerServiceAtRegistry(registry(), service("lamp"), {});
    ASSERT_EQ(outcomes->next(), "stopped");
    start();
    expectItWorks();
}

TEST_F(AStop, ByTheEndOfTheContextInACallbackEndsAllThreads) {
    start();
    client().registerServiceAtRegistry(registry(), service("lamp"), [this](const auto&) {
        context.reset();
        outcomes->add("ended");
    });
    ASSERT_EQ(outcomes->next(), "ended");
    EXPECT_TRUE(eventually([] {
        const auto names = testing::threadNames();
        return std::none_of(names.begin(), names.end(),
                            [](const std::string& name) { return name.rfind("ORVX_", 0) == 0; });
    }));
}

TEST_F(AStop, WaitsForTheRunningCallback) {
    start();
    Recorder goOn;
    client().registerServiceAtRegistry(registry(), service("lamp"), [this, &goOn](const auto&) {
        outcomes->add("runs");
        goOn.next();
        outcomes->add("ran to its end");
    });
    ASSERT_EQ(outcomes->next(), "runs");
    auto stopped = std::async(std::launch::async, [this] { context->deinit(); });
    // The connections are closed first; after that the stop waits for the callback only.
    EXPECT_TRUE(server.waitFor([](const auto& now) { return now.open == 0; }));
    EXPECT_EQ(stopped.wait_for(seconds(0)), std::future_status::timeout);
    goOn.add("");
    ASSERT_EQ(stopped.wait_for(seconds(10)), std::future_status::ready);
    EXPECT_EQ(outcomes->next(), "ran to its end");
}

TEST_F(AStop, DropsQueuedCallbacks) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    start();
    client().registerServiceAtRegistry(registry(), service("lamp"), [this](const auto&) {
        registerService("behind");
        // The check begins when the callback is waiting.
        expectRequest("HEAD /uuid-behind");
        stop();
        outcomes->add("stopped");
    });
    EXPECT_EQ(outcomes->next(), "stopped");
    start();
    expectItWorks();
}

TEST_F(AStop, DefersTheAnswersToLaterCallsUntilTheNextStart) {
    start();
    const Handle handle = registered("lamp");
    client().deinit();
    registerService("late", "late registration");
    handle(record("late withdrawal"));
    EXPECT_THAT(outcomes->rest(), IsEmpty());
    client().init();
    EXPECT_THAT(outcomes->take(2), ElementsAre("late registration: ERROR/DELEGATOR_NOT_INITIATED",
                                               "late withdrawal: ERROR/DELEGATOR_NOT_INITIATED"));
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
}

TEST_F(AStop, MayBeRepeatedOften) {
    start();
    for (int i = 0; i < 20; ++i) {
        registerService("lamp-" + std::to_string(i), "ignored");
        restart();
        outcomes->rest();
    }
    expectItWorks();
}

}  // namespace
}  // namespace orvx::serviceregistryclient
