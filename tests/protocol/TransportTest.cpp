// Connections that are refused, break, do not answer, or are too many.
//
// Threads: the test's, the client's and the server's.

#include "Descriptors.h"
#include "ProtocolTest.h"

#include <orvx/utility/OrvFoundationException.h>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::AnyOf;
using testing::BlackHole;
using testing::DeadResolver;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::NoDescriptors;
using testing::RefusedPort;
using ::testing::SizeIs;
using testing::warning;
using Clock = std::chrono::steady_clock;

class AConnection : public ProtocolTest {
  protected:
    static Service big(std::size_t mebibytes) {
        auto big = service("big");
        big->setDescription(std::string(mebibytes << 20, 'x'));
        return big;
    }
    /// Leaves this many used connections open.
    void keepConnections(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            server.nextRequest(Script().waitForRelease("all").send(created("/kept")));
            registerService("kept");
        }
        ASSERT_TRUE(server.waitForRequests(count));
        server.release("all");
        EXPECT_THAT(outcomes->take(count), Each(kRegistered));
    }
};

TEST_F(AConnection, ThatIsRefusedIsAFailure) {
    const RefusedPort refusedPort;
    start();
    EXPECT_EQ(outcomeAt(registryAt(refusedPort.port())), refused("CONNECT_FAILED"));
    EXPECT_THAT(logged(), ElementsAre(warning("connection refused by 127.0.0.1:" +
                                              std::to_string(refusedPort.port())),
                                      warning("response put request was not ok, communication "
                                              "status=CONNECT_FAILED, status=0")));
    expectItWorks();
}

TEST_F(AConnection, IsMadeAgainWhenTheRegistryIsBack) {
    start();
    expectItWorks();
    server.nextRequest(Script(created("/a")).close());
    registered("lamp");
    server.stopListening();
    EXPECT_EQ(outcome(), refused("CONNECT_FAILED"));
    server.listenAgain();
    expectItWorks();
}

TEST_F(AConnection, IsTriedAgainUntilTheRegistryIsThere) {
    context->enableRetry(true);
    context->setRetryInterval(milliseconds(1));
    server.stopListening();
    start();
    registerService("lamp");
    expectLogged("retry (3.) request: /lamp");
    server.listenAgain();
    EXPECT_EQ(outcomes->next(), kRegistered);
    expectItWorks();
}

TEST_F(AConnection, ThatIsNeitherTakenNorRefusedEndsWithItsTimeout) {
    const BlackHole hole;
    http.connectTimeout = kShort;
    start();
    const auto begin = Clock::now();
    EXPECT_EQ(outcomeAt(registryAt(hole.port())), refused("TIMED_OUT"));
    EXPECT_LT(Clock::now() - begin, seconds(5));
    expectItWorks();
}

TEST_F(AConnection, ThatStaysSilentEndsWithTheTotalTimeout) {
    http.requestTimeout = kShort;
    start();
    const auto begin = Clock::now();
    EXPECT_EQ(outcomeOf(Script().silence()), refused("TIMED_OUT"));
    EXPECT_LT(Clock::now() - begin, seconds(5));
    EXPECT_TRUE(server.waitForClosed(1));
    expectItWorks();
}

TEST_F(AConnection, ThatBringsAByteNowAndThenEndsWithTheTotalTimeoutAllTheSame) {
    http.requestTimeout = kShort;
    start();
    EXPECT_EQ(outcomeOf(Script().drip(created("/a"), milliseconds(50))), refused("TIMED_OUT"));
    expectItWorks();
}

TEST_F(AConnection, ThatTakesNoMoreOfALongRequestEndsWithTheTotalTimeout) {
    http.requestTimeout = kShort;
    server.nextConnection(Script().waitForRelease("end").silence());
    start();
    client().registerServiceAtRegistry(registry(), big(6), record());
    EXPECT_EQ(outcomes->next(), refused("TIMED_OUT"));
    expectItWorks();
    server.release("end");  // the kernel delivers these bytes before the end of the connection
}

TEST_F(AConnection, ThatBreaksWhileTheRequestIsBeingSentIsAFailure) {
    start();
    for (const Script& ending :
         {Script().readBytes(1000).close(), Script().readBytes(1000).reset()}) {
        restart();  // so that there is no kept connection, on which a request would be repeated
        server.nextConnection(ending);
        client().registerServiceAtRegistry(registry(), big(2), record());
        EXPECT_THAT(outcomes->next(), AnyOf(refused("SEND_FAILED"), refused("RECEIVE_FAILED")));
        expectItWorks();
    }
}

TEST_F(AConnection, ThatEndsAtOnceIsAFailure) {
    start();
    for (const Script& ending : {Script().close(), Script().reset()}) {
        restart();
        server.nextConnection(ending);
        EXPECT_THAT(outcome(), AnyOf(refused("CONNECT_FAILED"), refused("SEND_FAILED"),
                                     refused("RECEIVE_FAILED")));
        expectItWorks();
    }
    EXPECT_EQ(server.counters().requests, 2U);
}

TEST_F(AConnection, ThatBringsTheAnswerBeforeItIsAskedStillHasOneOutcome) {
    server.nextConnection(Script().send(created("/early")).readRequest());
    start();
    registered("lamp");
    expectItWorks();
    EXPECT_EQ(server.counters().requests, 2U);
}

TEST_F(AConnection, ThatBringsTheAnswerBeforeTheRequestIsSentStillHasOneOutcome) {
    start();
    for (const Script& ending :
         {Script().readBytes(1000).send(response(413)).close(),
          Script().readBytes(1000).send(response(413)).reset(),
          Script().readBytes(1000).send(response(413)).shutdownWrite().silence()}) {
        restart();
        server.nextConnection(ending);
        client().registerServiceAtRegistry(registry(), big(6), record());
        EXPECT_THAT(outcomes->next(), AnyOf(refused("413"), refused("SEND_FAILED"),
                                            refused("RECEIVE_FAILED"), refused("CUT_SHORT")));
        expectItWorks();
    }
}

TEST_F(AConnection, ThatEndsWithoutAnAnswerIsAFailure) {
    start();
    for (const Script& ending : {Script().close(), Script().reset()}) {
        restart();
        EXPECT_EQ(outcomeOf(ending), refused("RECEIVE_FAILED"));
        expectItWorks();
    }
    EXPECT_EQ(server.counters().requests, 4U);
}

TEST_F(AConnection, ThatWasKeptAndEndsWithoutAnAnswerLeadsToOneOutcomeOverANewOne) {
    const std::vector<Script> endings{Script().close(), Script().reset()};
    start();
    for (const Script& ending : endings) {
        expectItWorks();
        EXPECT_EQ(outcomeOf(ending), kRegistered);
    }
    const auto requests = server.requests();
    ASSERT_THAT(requests, SizeIs(3 * endings.size()));
    for (std::size_t i = 1; i < requests.size(); i += 3) {
        EXPECT_EQ(requests[i].raw, requests[i + 1].raw);
    }
}

TEST_F(AConnection, ThatWasKeptMayEndWithoutAnAnswerAnyNumberOfTimes) {
    http.connectionsPerEndpoint = 1;
    start();
    for (int i = 0; i < 20; ++i) {
        SCOPED_TRACE(i);
        expectItWorks();
        EXPECT_EQ(outcomeOf(Script().close()), kRegistered);
    }
    EXPECT_EQ(server.counters().requests, 3U * 20U);
}

TEST_F(AConnection, ThatEndsEachTimeWithoutAnAnswerIsTriedTwiceAtMost) {
    start();
    expectItWorks();
    server.nextRequest(Script().close());
    server.nextRequest(Script().close());
    EXPECT_EQ(outcome(), refused("RECEIVE_FAILED"));
    EXPECT_EQ(server.counters().requests, 3U);
    expectItWorks();
}

TEST_F(AConnection, ThatWasKeptAndEndsWithoutAnAnswerDoesNotSpoilAWithdrawal) {
    start();
    const Handle handle = registered("lamp");
    server.nextRequest(Script().close());
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_THAT(requestLines(), ElementsAre("PUT /lamp", "DELETE /uuid-lamp", "DELETE /uuid-lamp"));
}

TEST_F(AConnection, ThatWasKeptAndEndsInsideAnAnswerIsAFailure) {
    start();
    expectItWorks();
    EXPECT_EQ(outcomeOf(Script("H").close()), refused("CUT_SHORT"));
    EXPECT_EQ(server.counters().requests, 2U);
}

TEST_F(AConnection, ThatEndsLikeAllOthersThatWereKeptLeadsToOneOutcomeOverANewOne) {
    start();
    keepConnections(3);
    server.nextRequest(Script().close());
    EXPECT_EQ(outcome(), kRegistered);
    EXPECT_EQ(server.counters().requests, 3U + 2U);
    EXPECT_EQ(server.counters().connections, 4U);
}

TEST_F(AConnection, ThatEndsLikeAllOthersThatWereKeptIsTriedTwiceAtMost) {
    start();
    keepConnections(8);
    server.nextRequest(Script().close());
    server.nextRequest(Script().close());
    EXPECT_EQ(outcome(), refused("RECEIVE_FAILED"));
    EXPECT_EQ(server.counters().requests, 8U + 2U);
    expectItWorks();
}

TEST_F(AConnection, ThatTheRegistryClosedWhileItWasIdleIsNotUsedAgain) {
    start();
    for (const Script& ending :
         {Script(created("/a")).close(), Script(created("/b")).reset(),
          Script(created("/c") + response(408)).close(),
          Script(response(201, {{"Location", "/d"}, {"Connection", "close"}})).close()}) {
        EXPECT_EQ(outcomeOf(ending), kRegistered);
        EXPECT_TRUE(server.waitFor([](const auto& now) { return now.open == 0; }));
        expectItWorks();
    }
    EXPECT_EQ(server.counters().requests, 8U);
}

TEST_F(AConnection, IsUsedForOneRequestAfterTheOther) {
    start();
    const Handle handle = registered("lamp");
    expectItWorks();
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_EQ(server.counters().connections, 1U);
}

TEST_F(AConnection, ToANameWithoutAnAddressIsAFailure) {
    start();
    EXPECT_EQ(outcomeAt(registryAt(server.port(), "registry.unknown.test")),
              refused("RESOLVE_FAILED"));
    expectItWorks();
}

TEST_F(AConnection, DoesNotWaitForAResolverThatNeverAnswers) {
    const DeadResolver resolver;
    http.requestTimeout = kShort;
    start();
    const auto begin = Clock::now();
    client().registerServiceAtRegistry(registryAt(server.port(), "registry.silent.test"),
                                       service("lamp"), record());
    ASSERT_TRUE(resolver.waitForLookups(1));
    expectItWorks();
    EXPECT_EQ(outcomes->next(), refused("TIMED_OUT"));
    EXPECT_LT(Clock::now() - begin, seconds(5));
    EXPECT_EQ(resolver.waiting(), 1U);
    expectItWorks();
    stop();
    EXPECT_EQ(resolver.waiting(), 1U);
}

TEST_F(AConnection, ToANameFallsBackToTheAddressThatAnswers) {
    start();
    EXPECT_EQ(outcomeAt(registryAt(server.port(), "localhost")), kRegistered);
    EXPECT_EQ(server.requests().front().header("Host"),
              "localhost:" + std::to_string(server.port()));
}

TEST_F(AConnection, GoesOverTheNewerProtocolToo) {
    if (!testing::hasIpv6Loopback()) {
        GTEST_SKIP() << "no ::1 on this machine";
    }
    HostileServer other(testing::Loopback::V6);
    other.onRequest(obey);
    start();
    EXPECT_EQ(outcomeAt(registryAt(other.port(), "::1")), kRegistered);
    EXPECT_EQ(outcomeAt(registryAt(other.port(), "[::1]")), kRegistered);
    EXPECT_EQ(outcomeAt(registryAt(other.port(), "localhost")), kRegistered);
    stop();
}

TEST_F(AConnection, WithoutAFreeDescriptorIsAFailureUntilThereIsOne) {
    start();
    {
        const NoDescriptors none;
        EXPECT_EQ(outcome(), refused("CONNECT_FAILED"));
        EXPECT_EQ(outcome(), refused("CONNECT_FAILED"));
    }
    expectItWorks();
}

TEST_F(AConnection, ForAWithdrawalWithoutAFreeDescriptorIsAFailureUntilThereIsOne) {
    server.nextRequest(response(201, {{"Location", "/uuid"}, {"Connection", "close"}}));
    start();
    const Handle handle = registered("lamp");
    EXPECT_TRUE(server.waitForClosed(1));
    {
        const NoDescriptors none;
        EXPECT_EQ(outcomeOfWithdrawal(handle), refused("CONNECT_FAILED"));
    }
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
}

TEST_F(AConnection, NeedsAClientWhichCannotBeMadeWithoutADescriptor) {
    start();
    stop();
    {
        const NoDescriptors none;
        EXPECT_THROW(start(), utility::OrvFoundationException);
    }
    EXPECT_FALSE(context->isInitiated());
    start();
    expectItWorks();
}

TEST_F(AConnection, IsSharedByHundredsOfServices) {
    constexpr std::size_t kServices = 300;
    server.onRequest([](const Request& request) {
        return Script().waitForRelease("all").send(created(request.target));
    });
    start();
    for (std::size_t i = 0; i < kServices; ++i) {
        registerService("service-" + std::to_string(i));
    }
    ASSERT_TRUE(server.waitForRequests(16));
    server.release("all");
    EXPECT_THAT(outcomes->take(kServices), Each(kRegistered));
    EXPECT_EQ(server.counters().requests, kServices);
    EXPECT_EQ(server.counters().connections, 16U);

    server.onRequest(obey);
    client().unregisterAllServicesFromRegistry(
        [outcomes = outcomes](const auto&, const auto& outcome) {
            outcomes->add(describe(outcome));
        });
    EXPECT_THAT(outcomes->take(kServices), Each(kWithdrawn));
    EXPECT_EQ(server.counters().maxOpen, 16U);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(AConnection, OfAnEndpointThatIsNoneIsNotTried) {
    start();
    for (const common::ServiceInfo& where :
         {registryAt(0), registryAt(server.port(), ""), registryAt(server.port(), "two words"),
          registryAt(server.port(), "127.0.0.1@evil.unknown.test"),
          registryAt(server.port(), "127.0.0.1/path#"), registryAt(server.port(), "a\r\nX: y")}) {
        EXPECT_EQ(outcomeAt(where), refused("NO_SESSION"));
    }
    EXPECT_EQ(server.counters().connections, 0U);
    expectLogged("no session can be made for service registry 127.0.0.1:0");
    expectItWorks();
}

}  // namespace
}  // namespace orvx::serviceregistryclient
