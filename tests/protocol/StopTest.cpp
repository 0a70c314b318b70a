// Stopping in every phase of a request: quick, without a callback afterwards, with the
// registrations as they were, and to be started again. The fixture measures every stop.
//
// Threads: the test's, the client's and the server's.

#include "ClientTestAccess.h"
#include "Process.h"
#include "ProtocolTest.h"
#include "States.h"

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
    /// The states of all registrations.
    std::vector<std::uint32_t> states() {
        ClientTestAccess access(client());
        std::vector<std::uint32_t> states;
        for (const std::uint64_t id : access.ids()) {
            states.push_back(access.state(id));
        }
        return states;
    }
    /// Stops, starts again, and registers another service; nothing else may have happened.
    void expectStopAndStart(const std::vector<std::uint32_t>& expected) {
        EXPECT_EQ(states(), expected);
        restart();
        EXPECT_EQ(states(), expected);
        EXPECT_THAT(outcomes->rest(), IsEmpty());
        server.onRequest(obey);
        expectItWorks();
        EXPECT_THAT(states(), SizeIs(expected.size() + 1));
    }
};

TEST_F(AStop, WhileRequestsWaitForAConnection) {
    server.onRequest([](const Request&) { return Script().silence(); });
    start();
    for (int i = 0; i < 40; ++i) {
        registerService("lamp-" + std::to_string(i));
    }
    ASSERT_TRUE(server.waitForRequests(16));
    expectStopAndStart(std::vector<std::uint32_t>(40, state::registering));
    EXPECT_EQ(server.counters().requests, 17U);
}

TEST_F(AStop, WhileANameIsLookedUp) {
    const DeadResolver resolver;
    start();
    client().registerServiceAtRegistry(registryAt(server.port(), "registry.silent.test"),
                                       service("lamp"), record());
    ASSERT_TRUE(resolver.waitForLookups(1));
    expectStopAndStart({state::registering});
    EXPECT_EQ(resolver.waiting(), 1U);
}

TEST_F(AStop, WhileAConnectionIsBeingMade) {
    const BlackHole hole;
    start();
    client().registerServiceAtRegistry(registryAt(hole.port()), service("lamp"), record());
    ASSERT_TRUE(eventually([&hole] { return testing::isConnecting(hole.port()); }));
    expectStopAndStart({state::registering});
}

TEST_F(AStop, WhileARequestIsBeingSent) {
    server.nextConnection(Script().readBytes(100).waitForRelease("end").silence());
    start();
    const auto big = service("big");
    big->setDescription(std::string(6 << 20, 'x'));
    client().registerServiceAtRegistry(registry(), big, record());
    ASSERT_TRUE(server.waitForConnections(1));
    expectStopAndStart({state::registering});
    server.release("end");
}

TEST_F(AStop, WhileAnAnswerIsWaitedFor) {
    server.nextRequest(Script().silence());
    start();
    registerService("lamp");
    ASSERT_TRUE(server.waitForRequests(1));
    expectStopAndStart({state::registering});
}

TEST_F(AStop, WhileAnAnswerIsComingIn) {
    start();
    for (const Script& half :
         {Script("HTTP/1.1 201 Cre").silence(), Script("HTTP/1.1 201 Created\r\n").silence(),
          Script(response(201, {{"Location", "/a"}, {"Content-Length", "9"}})).silence(),
          Script().drip(created(std::string(500, 'x')), milliseconds(5))}) {
        const auto requests = server.counters().requests;
        auto expected = states();
        expected.push_back(state::registering);
        server.nextRequest(half);
        registerService("lamp");
        ASSERT_TRUE(server.waitForRequests(requests + 1));
        expectStopAndStart(expected);
    }
}

TEST_F(AStop, BetweenTheRetries) {
    context->enableRetry(true);
    context->setRetryInterval(std::chrono::hours(1));
    server.nextRequest(Script("HTTP/1.1 201").close());
    start();
    registerService("lamp");
    expectLogged("retry (1.) request: /lamp");
    expectStopAndStart({state::registering});
}

TEST_F(AStop, AmidRetriesWithoutAPause) {
    context->enableRetry(true);
    context->setRetryInterval(milliseconds(0));
    context->setInitialMaxRetryCount(65535);
    server.onRequest([](const Request&) { return Script("HTTP/1.1 201").close(); });
    start();
    registerService("lamp");
    ASSERT_TRUE(server.waitForRequests(10));
    expectStopAndStart({state::registering});
}

TEST_F(AStop, BetweenTheChecks) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(3600));
    start();
    const Handle handle = registered("lamp");
    expectStopAndStart({state::registered});
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
}

TEST_F(AStop, BetweenACheckAndItsAnswer) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    server.nextRequest(created("/uuid"));
    server.nextRequest(Script().silence());
    start();
    const Handle handle = registered("lamp");
    ASSERT_TRUE(server.waitForRequests(2));
    expectStopAndStart({state::registered});
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
}

TEST_F(AStop, WhileALostServiceIsRegisteredAgain) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    server.nextRequest(created("/uuid"));
    server.nextRequest(response(404));
    server.nextRequest(Script().silence());
    start();
    registered("lamp");
    ASSERT_TRUE(server.waitForRequests(3));
    expectStopAndStart({state::reregistering});
}

TEST_F(AStop, WhileAWithdrawalIsOut) {
    server.nextRequest(created("/uuid"));
    server.nextRequest(Script().silence());
    start();
    const Handle handle = registered("lamp");
    handle(record());
    ASSERT_TRUE(server.waitForRequests(2));
    expectStopAndStart({state::unregistering});
}

TEST_F(AStop, FromInsideACallback) {
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

TEST_F(AStop, OfTheClientAloneFromInsideACallback) {
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

TEST_F(AStop, FromInsideTheListener) {
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

TEST_F(AStop, ByTheEndOfTheContextInsideACallback) {
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

TEST_F(AStop, WaitsForTheCallbackThatRuns) {
    start();
    Recorder goOn;
    client().registerServiceAtRegistry(registry(), service("lamp"), [this, &goOn](const auto&) {
        outcomes->add("runs");
        goOn.next();
        outcomes->add("ran to its end");
    });
    ASSERT_EQ(outcomes->next(), "runs");
    auto stopped = std::async(std::launch::async, [this] { context->deinit(); });
    // The connections are closed first: from then on only the callback is waited for.
    EXPECT_TRUE(server.waitFor([](const auto& now) { return now.open == 0; }));
    EXPECT_EQ(stopped.wait_for(seconds(0)), std::future_status::timeout);
    goOn.add("");
    ASSERT_EQ(stopped.wait_for(seconds(10)), std::future_status::ready);
    EXPECT_EQ(outcomes->next(), "ran to its end");
}

TEST_F(AStop, DropsTheCallbacksThatWait) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    start();
    client().registerServiceAtRegistry(registry(), service("lamp"), [this](const auto&) {
        registerService("behind");
        // Its check begins when its callback waits already.
        expectRequest("HEAD /uuid-behind");
        stop();
        outcomes->add("stopped");
    });
    EXPECT_EQ(outcomes->next(), "stopped");
    start();
    expectItWorks();
}

TEST_F(AStop, AnswersNothingThatIsAskedAfterIt) {
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
