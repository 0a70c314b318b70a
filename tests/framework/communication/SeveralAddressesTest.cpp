// The choice among the addresses of a name when one of them accepts connections but does not
// answer.

#include "HttpTest.h"
#include "TlsServer.h"

#include <chrono>
#include <vector>

#include "DeadResolver.h"

namespace orvx::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::SizeIs;

Script ok(const Request& /*request*/) {
    return response(200);
}
Script silence(const Request& /*request*/) {
    return Script().silence();
}

/// A name with three addresses: `server_` is at the first, `second_` at the second, and the third
/// refuses connections.
class AddressesOfAName : public HttpTest {
  protected:
    AddressesOfAName() {
        server_.onRequest(silence);
        second_.onRequest(ok);
    }

    /// Sends a HEAD to `server`, and abandons it there.
    void giveUpARequestAt(const HostileServer& server) {
        const std::size_t before = server.counters().requests;
        Outcome outcome;
        named_->sendHeadRequest("/", outcome.handler());
        ASSERT_TRUE(server.waitForRequests(before + 1));
        named_->abandon();
        EXPECT_EQ(outcome.status(), CommunicationStatus::Abandoned);
    }
    /// Leaves `count` kept connections to the first address.
    void keepConnections(std::size_t count, const SessionPointer& session) {
        server_.onRequest(
            [](const Request&) { return Script().waitForRelease("all").send(response(200)); });
        std::vector<Outcome> outcomes(count);
        for (Outcome& outcome : outcomes) {
            session->sendPutRequestJson("/", "", 0, outcome.handler());
        }
        ASSERT_TRUE(server_.waitForRequests(count));
        server_.release("all");
        for (const Outcome& outcome : outcomes) {
            EXPECT_EQ(outcome.statusCode(), 200);
        }
        EXPECT_EQ(server_.counters().open, count);
    }
    void expectRequests(std::size_t atFirst, std::size_t atSecond) const {
        EXPECT_EQ(server_.counters().requests, atFirst);
        EXPECT_EQ(second_.counters().requests, atSecond);
    }

    const DeadResolver resolver_;
    HostileServer second_{Loopback::SecondV4, server_.port()};
    const SessionPointer named_ = session(server_.port(), {}, "a.replicas.test");
};

// Each request once went to the silent address again.
TEST_F(AddressesOfAName, AreChangedAfterARequestThatTimedOut) {
    server_.nextRequest(response(200));
    put(named_);  // the request in question needs no time to connect
    Outcome late;
    named_->sendHeadRequestWithin(500ms, "/", late.handler());
    EXPECT_EQ(late.status(), CommunicationStatus::TimedOut);
    EXPECT_EQ(codeOf(put(named_)), 200);
    expectRequests(2, 1);
}

TEST_F(AddressesOfAName, AreChangedAfterARequestThatWasGivenUp) {
    giveUpARequestAt(server_);
    EXPECT_EQ(codeOf(put(named_)), 200);
    expectRequests(1, 1);
}

// Each of the kept connections once cost a request.
TEST_F(AddressesOfAName, AreChangedForAllKeptConnectionsAtOnce) {
    keepConnections(3, named_);
    server_.onRequest(silence);
    giveUpARequestAt(server_);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(codeOf(put(named_)), 200);
    }
    expectRequests(4, 3);
    EXPECT_TRUE(server_.waitForClosed(3)) << "idle connections to a silent address are closed";
}

TEST_F(AddressesOfAName, AreKeptWhileTheyAnswer) {
    giveUpARequestAt(server_);
    server_.onRequest(ok);
    second_.onRequest([](const Request&) { return Script().send(response(503)).close(); });
    for (std::size_t i = 1; i <= 3; ++i) {
        EXPECT_EQ(codeOf(put(named_)), 503);
        ASSERT_TRUE(second_.waitFor([](const auto& now) { return now.open == 0; }));
    }
    expectRequests(1, 3);
}

TEST_F(AddressesOfAName, TakeTurnsWhileNoneAnswers) {
    HostileServer third(Loopback::ThirdV4, server_.port());
    third.onRequest(silence);
    second_.onRequest(silence);
    for (int round = 0; round < 2; ++round) {
        giveUpARequestAt(server_);
        giveUpARequestAt(second_);
        giveUpARequestAt(third);
    }
}

// The repetition once went to the address that had just ended the connection, and failed.
TEST_F(AddressesOfAName, AreChangedForTheRepetitionOfARequest) {
    keepConnections(1, named_);
    server_.onRequest([](const Request&) { return Script().close(); });
    EXPECT_EQ(codeOf(put(named_)), 200);
    expectRequests(2, 1);
}

TEST_F(AddressesOfAName, AreChangedAfterAConnectionThatEndedBeforeTheAnswer) {
    server_.onRequest([](const Request&) { return Script().send("HTTP/1.1 2").close(); });
    EXPECT_EQ(put(named_).getCommunicationStatus(), CommunicationStatus::CutShort);
    EXPECT_EQ(codeOf(put(named_)), 200);
    expectRequests(1, 1);
}

// After a failed connection the name is looked up again, and the addresses are used in the
// resolver's order.
TEST_F(AddressesOfAName, AreChangedAfterAHandshakeThatWasNotAnswered) {
    HostileServer silent(Loopback::V4);
    silent.everyConnection(Script().silence());
    TlsServer::Options options;
    options.subject = "DNS:a.replicas.test";
    options.loopback = Loopback::SecondV4;
    options.port = silent.port();
    const TlsServer answering(options, [](SSL& ssl) {
        TlsServer::readRequest(ssl);
        TlsServer::send(ssl, response(200));
    });
    HttpConfig config;
    config.connectTimeout = 1s;
    config.tls.enabled = true;
    config.tls.authorityFile = answering.authority();
    const SessionPointer secure = session(silent.port(), config, "a.replicas.test");
    EXPECT_EQ(remove(secure).getCommunicationStatus(), CommunicationStatus::TimedOut);
    EXPECT_EQ(codeOf(remove(secure)), 200);
    EXPECT_EQ(silent.counters().connections, 1U);
    EXPECT_THAT(resolver_.lookups(), SizeIs(2));
}

TEST_F(AddressesOfAName, AreLeftAloneWhileTheHandshakeWithOneIsUnderWay) {
    HttpConfig config;
    config.connectTimeout = 1s;
    config.tls.enabled = true;
    server_.everyConnection(Script().readBytes(1).waitForRelease("never"));
    const SessionPointer secure = session(server_.port(), config, "a.replicas.test");
    EXPECT_EQ(remove(secure).getCommunicationStatus(), CommunicationStatus::TimedOut);
    EXPECT_EQ(server_.counters().connections, 1U);
    EXPECT_EQ(second_.counters().connections, 0U);
}

TEST_F(AddressesOfAName, AreInTheResolversOrderAfterALookUpOnceTheyHaveAnswered) {
    server_.stopListening();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(codeOf(put(named_)), 200);
        second_.nextRequest(Script().silence());
        giveUpARequestAt(second_);
    }
    second_.nextRequest(Script().send(response(200)).close());
    EXPECT_EQ(codeOf(put(named_)), 200) << "the second is the first";
    ASSERT_TRUE(second_.waitFor([](const auto& now) { return now.open == 0; }));
    second_.stopListening();
    EXPECT_EQ(put(named_).getCommunicationStatus(), CommunicationStatus::ConnectFailed);
    server_.onRequest(ok);
    server_.listenAgain();
    second_.listenAgain();
    EXPECT_EQ(codeOf(put(named_)), 200);
    EXPECT_THAT(resolver_.lookups(), SizeIs(2));
    expectRequests(1, 5);
}

// A single slow answer.
TEST_F(AddressesOfAName, KeepAConnectionThatStillAnswers) {
    server_.nextRequest(Script().waitForRelease("slow").send(response(200)));
    Outcome slow;
    named_->sendPutRequestJson("/", "", 0, slow.handler());
    ASSERT_TRUE(server_.waitForRequests(1));
    giveUpARequestAt(server_);
    server_.release("slow");
    EXPECT_EQ(slow.statusCode(), 200);
    server_.onRequest(ok);
    EXPECT_EQ(codeOf(put(named_)), 200);
    expectRequests(3, 0);
}

TEST_F(AddressesOfAName, AreKeptAfterAnAnswerThatIsRefused) {
    server_.onRequest([](const Request&) { return "HTTP/9 200\r\n\r\n"; });
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(put(named_).getCommunicationStatus(), CommunicationStatus::Malformed);
    }
    expectRequests(2, 0);
}

TEST_F(AddressesOfAName, KeepTheConnectionsIfThereIsOnlyOne) {
    const SessionPointer single = session();
    keepConnections(3, single);
    server_.onRequest(silence);
    Outcome outcome;
    single->sendHeadRequest("/", outcome.handler());
    ASSERT_TRUE(server_.waitForRequests(4));
    single->abandon();
    EXPECT_EQ(outcome.status(), CommunicationStatus::Abandoned);
    server_.onRequest(ok);
    EXPECT_EQ(codeOf(put(single)), 200);
    EXPECT_EQ(server_.counters().connections, 3U);
    EXPECT_EQ(server_.counters().closedByPeer, 1U);
}

// Before, the connection was neither used nor dropped, and no other one was made.
TEST_F(AddressesOfAName, AreChangedAfterAConnectionThatBringsAPartOfARecordAndThenNothing) {
    TlsServer::Options options;
    options.afterHandshake = "\x17\x03\x03";
    const TlsServer silent(options, [](SSL&) {});
    TlsServer::Options ofSecond;
    ofSecond.loopback = Loopback::SecondV4;
    ofSecond.port = silent.port();
    const TlsServer answering(ofSecond, [](SSL& ssl) {
        TlsServer::readRequest(ssl);
        TlsServer::send(ssl, response(200));
    });
    HttpConfig config;
    config.connectTimeout = 1s;  // also limits the handshake with the second one
    config.tls.enabled = true;
    config.tls.disableServerVerification = true;
    EXPECT_EQ(codeOf(remove(session(silent.port(), config, "a.replicas.test"))), 200);
}

}  // namespace
}  // namespace orvx::testing
