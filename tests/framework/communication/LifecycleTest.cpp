// Start and stop of a communication context, with requests in every phase.

#include "BusyIoThread.h"
#include "HttpTest.h"

#include <future>
#include <memory>
#include <mutex>
#include <vector>

#include "DeadResolver.h"
#include "Loopback.h"
#include "StopBound.h"

namespace orvx::testing {
namespace {

using namespace std::chrono_literals;

class ACommunicationContext : public HttpTest {
  protected:
    ACommunicationContext() {
        server_.onRequest([](const Request&) { return response(200); });
    }
    /// De-initialises the context while the request is outstanding.
    void expectGivenUp(const Outcome& outcome) {
        const auto start = std::chrono::steady_clock::now();
        context_.deinit();
        EXPECT_LT(std::chrono::steady_clock::now() - start, kStopBound);
        EXPECT_TRUE(outcome.isDestroyed());
        EXPECT_EQ(outcome.calls(), 0);
    }
};

TEST_F(ACommunicationContext, CallsEachHandlerOnceOnItsOwnThread) {
    const SessionPointer answering = session();
    std::vector<Outcome> outcomes(100);
    for (Outcome& outcome : outcomes) {
        answering->sendHeadRequest("/", outcome.handler());
    }
    for (const Outcome& outcome : outcomes) {
        EXPECT_TRUE(outcome.waitUntilDestroyed());
        EXPECT_EQ(outcome.calls(), 1);
        EXPECT_EQ(outcome.callingThread(), "ORVX_HttpIO");
    }
}

TEST_F(ACommunicationContext, NeverCallsAHandlerBeforeTheRequestReturns) {
    std::mutex callers;
    const auto locking = [&callers] { const std::lock_guard lock(callers); };
    Outcome sent;
    Outcome invalid;
    Outcome unavailable;
    {
        const std::lock_guard lock(callers);
        session()->sendHeadRequest("/", sent.handler(locking));
        session()->sendDeleteRequest("/", "\n", invalid.handler(locking));
        context_.getUnavailableSession()->sendHeadRequest("/", unavailable.handler(locking));
    }
    EXPECT_EQ(sent.status(), CommunicationStatus::Ok);
    EXPECT_EQ(invalid.status(), CommunicationStatus::InvalidRequest);
    EXPECT_EQ(unavailable.status(), CommunicationStatus::NoSession);
    EXPECT_EQ(unavailable.callingThread(), "ORVX_HttpIO");
}

TEST_F(ACommunicationContext, AnswersForASessionThatThereIsNot) {
    const SessionPointer none = context_.getUnavailableSession();
    none->abandon();
    EXPECT_EQ(put(none).getCommunicationStatus(), CommunicationStatus::NoSession);
    EXPECT_EQ(head(none).getCommunicationStatus(), CommunicationStatus::NoSession);
    EXPECT_EQ(remove(none).getCommunicationStatus(), CommunicationStatus::NoSession);
}

TEST_F(ACommunicationContext, CompletesTheRequestsOfASessionThatIsGone) {
    server_.nextRequest(Script().waitForRelease("gone").send(response(200)));
    std::vector<Outcome> outcomes(3);
    {
        const SessionPointer shortLived = session(oneConnection());
        for (Outcome& outcome : outcomes) {
            shortLived->sendHeadRequest("/", outcome.handler());
        }
    }
    server_.release("gone");
    for (const Outcome& outcome : outcomes) {
        EXPECT_EQ(outcome.statusCode(), 200);
    }
}

TEST_F(ACommunicationContext, TakesNoRequestWithoutAHandlerAmiss) {
    const SessionPointer silent = session(oneConnection());
    silent->sendHeadRequest("/", nullptr);
    EXPECT_EQ(codeOf(put(silent)), 200);
}

TEST_F(ACommunicationContext, GivesUpWhileANameIsLookedUp) {
    DeadResolver resolver;
    Outcome outcome;
    session(80, {}, "a.silent.test")->sendHeadRequest("/", outcome.handler());
    ASSERT_TRUE(resolver.waitForLookups(1));
    expectGivenUp(outcome);
}

TEST_F(ACommunicationContext, GivesUpWhileItConnects) {
    const BlackHole blackHole;
    Outcome outcome;
    const SessionPointer connecting = session(blackHole.port());
    connecting->sendHeadRequest("/", outcome.handler());
    put(context_.getUnavailableSession());
    expectGivenUp(outcome);
}

TEST_F(ACommunicationContext, GivesUpDuringATlsHandshake) {
    HttpConfig config;
    config.tls.enabled = true;
    server_.everyConnection(Script().readBytes(1).waitForRelease("never"));
    Outcome outcome;
    session(config)->sendHeadRequest("/", outcome.handler());
    ASSERT_TRUE(server_.waitForConnections(1));
    expectGivenUp(outcome);
}

TEST_F(ACommunicationContext, GivesUpWhileItSends) {
    const std::string content(64 * 1024 * 1024, 'x');
    server_.everyConnection(Script().stall());
    Outcome outcome;
    session()->sendPutRequestJson("/", content.data(), content.size(), outcome.handler());
    ASSERT_TRUE(server_.waitForConnections(1));
    expectGivenUp(outcome);
}

TEST_F(ACommunicationContext, GivesUpWhileItWaitsForAnAnswer) {
    server_.onRequest([](const Request&) { return Script().silence(); });
    Outcome outcome;
    session()->sendHeadRequest("/", outcome.handler());
    ASSERT_TRUE(server_.waitForRequests(1));
    expectGivenUp(outcome);
    EXPECT_TRUE(server_.waitForClosed(1));
}

TEST_F(ACommunicationContext, GivesUpWhileItReceives) {
    server_.onRequest([](const Request&) {
        return Script().send("HTTP/1.1 200 OK\r\n\r\n").sendEndlessly("x", Script::kUncapped, 1ms);
    });
    Outcome outcome;
    session()->sendPutRequestJson("/", "", 0, outcome.handler());
    ASSERT_TRUE(server_.waitForRequests(1));
    expectGivenUp(outcome);
}

TEST_F(ACommunicationContext, GivesUpWhatWaits) {
    server_.onRequest([](const Request&) { return Script().silence(); });
    const SessionPointer connection = session(oneConnection());
    std::vector<Outcome> outcomes(100);
    for (Outcome& outcome : outcomes) {
        connection->sendPutRequestJson("/", "", 0, outcome.handler());
    }
    ASSERT_TRUE(server_.waitForRequests(1));
    context_.deinit();
    for (const Outcome& outcome : outcomes) {
        EXPECT_TRUE(outcome.isDestroyed());
        EXPECT_EQ(outcome.calls(), 0);
    }
}

TEST_F(ACommunicationContext, DropsWhatIsSentWhileItIsStoppedForGood) {
    const SessionPointer kept = session();
    put(kept);
    context_.deinit();
    Outcome dropped;
    Outcome unavailable;
    kept->sendHeadRequest("/", dropped.handler());
    kept->abandon();
    context_.getUnavailableSession()->sendHeadRequest("/", unavailable.handler());
    EXPECT_TRUE(dropped.isDestroyed());
    EXPECT_TRUE(unavailable.isDestroyed());
    context_.init();
    EXPECT_EQ(codeOf(head(kept)), 200);
    EXPECT_EQ(dropped.calls(), 0);
    EXPECT_EQ(server_.counters().requests, 2U);
}

TEST_F(ACommunicationContext, WorksAgainWithItsSessionsAfterEachRestart) {
    const SessionPointer kept = session();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(codeOf(put(kept)), 200);
        context_.deinit();
        context_.deinit();
        context_.init();
        context_.init();
    }
}

TEST_F(ACommunicationContext, MakesSessionsBeforeItIsInitialised) {
    OrvClientCommunicationContext late;
    const SessionPointer early = late.getClientHttpFactory().createSession(
        "127.0.0.1", server_.port(), {}, late.getHealthCheck(), late.getClientStatistics());
    late.init();
    EXPECT_EQ(codeOf(head(early)), 200);
}

TEST_F(ACommunicationContext, LeavesItsSessionsHarmlessWhenItIsDestroyed) {
    SessionPointer orphan;
    Outcome outcome;
    {
        OrvClientCommunicationContext shortLived;
        shortLived.init();
        orphan = shortLived.getClientHttpFactory().createSession("127.0.0.1", server_.port(), {},
                                                                 shortLived.getHealthCheck(),
                                                                 shortLived.getClientStatistics());
        EXPECT_EQ(codeOf(put(orphan)), 200);
    }
    orphan->sendHeadRequest("/", outcome.handler());
    orphan->abandon();
    EXPECT_TRUE(outcome.isDestroyed());
    EXPECT_EQ(outcome.calls(), 0);
}

TEST_F(ACommunicationContext, EndsInsideAHandlerAndCallsNoOtherThatIsDue) {
    server_.onRequest([](const Request&) {
        return Script().waitForRelease("answer").send(response(200)).close();
    });
    const SessionPointer ending = session();
    std::vector<Outcome> outcomes(2);
    for (Outcome& outcome : outcomes) {
        ending->sendHeadRequest("/", outcome.handler([this] { context_.deinit(); }));
    }
    ASSERT_TRUE(server_.waitForRequests(2));
    {
        const BusyIoThread busy(context_);
        server_.release("answer");
        ASSERT_TRUE(server_.waitFor([](const auto& now) { return now.open == 0; }));
    }
    EXPECT_TRUE(outcomes[0].waitUntilDestroyed());
    EXPECT_TRUE(outcomes[1].waitUntilDestroyed());
    EXPECT_EQ(outcomes[0].calls() + outcomes[1].calls(), 1);
}

TEST_F(ACommunicationContext, EndsInsideAHandlerAndCallsNoOtherThatIsDueInTheSameRound) {
    const SessionPointer unavailable = context_.getUnavailableSession();
    std::vector<Outcome> outcomes(2);
    {
        const BusyIoThread busy(context_);
        for (Outcome& outcome : outcomes) {
            unavailable->sendHeadRequest("/", outcome.handler([this] { context_.deinit(); }));
        }
    }
    EXPECT_TRUE(outcomes[0].waitUntilDestroyed());
    EXPECT_TRUE(outcomes[1].waitUntilDestroyed());
    EXPECT_EQ(outcomes[0].calls() + outcomes[1].calls(), 1);
}

TEST_F(ACommunicationContext, WaitsForTheHandlerInWhichItEnded) {
    std::promise<void> ended;
    Outcome outcome;
    session()->sendHeadRequest("/", outcome.handler([this, &ended] {
        context_.deinit();
        ended.set_value();
    }));
    ended.get_future().wait();
    context_.deinit();
    EXPECT_TRUE(outcome.isDestroyed());
}

TEST_F(ACommunicationContext, StartsAgainInsideTheHandlerInWhichItEnded) {
    const SessionPointer kept = session();
    Outcome outcome;
    Outcome next;
    kept->sendHeadRequest("/", outcome.handler([&] {
        context_.deinit();
        context_.init();
        kept->sendHeadRequest("/", next.handler());
    }));
    EXPECT_EQ(next.statusCode(), 200);
    EXPECT_TRUE(outcome.waitUntilDestroyed());
    context_.deinit();
}

TEST_F(ACommunicationContext, StartsAgainWhileTheHandlerInWhichItEndedStillRuns) {
    const SessionPointer kept = session();
    std::promise<void> ended;
    std::promise<void> released;
    Outcome outcome;
    kept->sendHeadRequest("/", outcome.handler([&] {
        context_.deinit();
        ended.set_value();
        released.get_future().wait();
    }));
    ended.get_future().wait();
    context_.init();
    EXPECT_EQ(codeOf(head(kept)), 200);
    released.set_value();
    context_.deinit();
    EXPECT_TRUE(outcome.isDestroyed());
}

// Before, the outer call used an I/O thread's object that the inner one had destroyed.
TEST_F(ACommunicationContext, EndsInsideTheDestructorOfAHandlerThatItsEndDrops) {
    std::promise<void> entered;
    std::promise<void> released;
    const SessionPointer unavailable = context_.getUnavailableSession();
    Outcome running;
    unavailable->sendHeadRequest("/", running.handler([&] {
        entered.set_value();
        released.get_future().wait();
    }));
    entered.get_future().wait();
    bool hasEnded = false;
    std::shared_ptr<void> ending(nullptr, [&](void*) {
        released.set_value();
        context_.deinit();
        hasEnded = true;
    });
    unavailable->sendHeadRequest("/", [ending](const HttpResponse&) { ADD_FAILURE(); });
    ending.reset();
    context_.deinit();
    EXPECT_TRUE(hasEnded);
    EXPECT_TRUE(running.isDestroyed());
}

TEST_F(ACommunicationContext, MayBeDestroyedInsideAHandler) {
    auto shortLived = std::make_unique<OrvClientCommunicationContext>();
    shortLived->init();
    Outcome outcome;
    shortLived->getUnavailableSession()->sendHeadRequest(
        "/", outcome.handler([&shortLived] { shortLived.reset(); }));
    EXPECT_TRUE(outcome.waitUntilDestroyed());
    EXPECT_EQ(shortLived, nullptr);
}

TEST_F(ACommunicationContext, DestroysHandlersThatUseItWhenItEnds) {
    server_.onRequest([](const Request&) { return Script().silence(); });
    const SessionPointer kept = session(oneConnection());
    Outcome dropped;
    /// Sends a request in its destructor.
    struct LastWord {
        SessionPointer session;
        Outcome& outcome;
        ~LastWord() { session->sendHeadRequest("/", outcome.handler()); }
    };
    for (int i = 0; i < 3; ++i) {
        kept->sendHeadRequest("/", [word = std::make_shared<LastWord>(LastWord{kept, dropped})](
                                       const HttpResponse&) {});
    }
    ASSERT_TRUE(server_.waitForRequests(1));
    context_.deinit();
    EXPECT_TRUE(dropped.isDestroyed());
    EXPECT_EQ(dropped.calls(), 0);
}

}  // namespace
}  // namespace orvx::testing
