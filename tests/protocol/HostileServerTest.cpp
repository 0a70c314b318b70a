// Each behaviour of the hostile server, observed with a plain socket.
//
// Threads: the test's and the server's. To show that an event does not happen, a test makes a round
// trip on a later connection: by then the server has handled everything that was sent before.

#include "HostileServer.h"

#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <optional>

namespace orvx::testing {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr int kPatienceMilliseconds = 10000;
const std::string kGet = "GET / HTTP/1.1\r\n\r\n";

/// A peer of the server. Each read ends after ten seconds.
class Peer {
  public:
    explicit Peer(const HostileServer& server, Loopback loopback = Loopback::V4)
        : socket_(connectLoopback(server.port(), loopback)) {
        EXPECT_TRUE(waitForEvents(socket_, POLLOUT, kPatienceMilliseconds));
    }

    const Socket& socket() const { return socket_; }

    void send(const std::string& bytes) {
        const auto sent = ::send(socket_.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        EXPECT_EQ(sent, static_cast<ssize_t>(bytes.size()));
    }

    /// Reads this many bytes, or fewer if the connection ends before.
    std::string read(std::size_t size) {
        std::string bytes;
        while (bytes.size() < size && waitForEvents(socket_, POLLIN, kPatienceMilliseconds)) {
            std::array<char, 65536> buffer;
            const auto limit = std::min(size - bytes.size(), buffer.size());
            const auto got = ::recv(socket_.fd(), buffer.data(), limit, 0);
            if (got <= 0) {
                break;
            }
            bytes.append(buffer.data(), static_cast<std::size_t>(got));
        }
        return bytes;
    }

    std::string exchange(const std::string& request, std::size_t answerSize) {
        send(request);
        return read(answerSize);
    }

    /// Reads all remaining bytes. Returns how the connection ends: 0 with a FIN, otherwise an
    /// errno.
    int ending() {
        while (waitForEvents(socket_, POLLIN, kPatienceMilliseconds)) {
            std::array<char, 65536> buffer;
            const auto got = ::recv(socket_.fd(), buffer.data(), buffer.size(), 0);
            if (got <= 0) {
                return got == 0 ? 0 : errno;
            }
        }
        return ETIMEDOUT;
    }

    bool hasSomethingToRead() const { return waitForEvents(socket_, POLLIN, 0); }

    void shutdownWrite() { ::shutdown(socket_.fd(), SHUT_WR); }

  private:
    Socket socket_;
};

/// Makes a round trip on a new connection. The server must have no connection scripts left.
void settle(HostileServer& server) {
    server.nextRequest("settled");
    EXPECT_EQ(Peer(server).exchange(kGet, 7), "settled");
}

TEST(AResponse, HasAContentLengthUnlessItBringsOneOrMayHaveNone) {
    EXPECT_EQ(response(201, {{"Location", "/x"}}, "ab"),
              "HTTP/1.1 201 Scripted\r\nLocation: /x\r\nContent-Length: 2\r\n\r\nab");
    EXPECT_EQ(response(200, {{"content-length", "9"}}, "ab"),
              "HTTP/1.1 200 Scripted\r\ncontent-length: 9\r\n\r\nab");
    EXPECT_EQ(response(204), "HTTP/1.1 204 Scripted\r\n\r\n");
    EXPECT_EQ(response(100), "HTTP/1.1 100 Scripted\r\n\r\n");
}

TEST(TheHostileServer, RecordsARequestThatArrivesInPieces) {
    HostileServer server;
    const std::string request =
        "PUT /entries/a?b HTTP/1.1\r\nHost: h\r\nCONTENT-LENGTH:  5 \r\n\r\nhello";
    Peer peer(server);
    peer.send(request.substr(0, 20));
    settle(server);
    peer.send(request.substr(20, request.size() - 22));
    settle(server);
    peer.send("lo");
    ASSERT_TRUE(server.waitForRequests(3));
    const Request recorded = server.requests()[2];
    EXPECT_EQ(recorded.connection, 0U);
    EXPECT_EQ(recorded.method, "PUT");
    EXPECT_EQ(recorded.target, "/entries/a?b");
    EXPECT_EQ(recorded.version, "HTTP/1.1");
    EXPECT_EQ(recorded.headerLines, (std::vector<std::string>{"Host: h", "CONTENT-LENGTH:  5 "}));
    EXPECT_EQ(recorded.header("content-length"), "5");
    EXPECT_EQ(recorded.header("Accept"), std::nullopt);
    EXPECT_EQ(recorded.body, "hello");
    EXPECT_EQ(recorded.raw, request);
}

TEST(TheHostileServer, AnswersFromTheScriptThenFromTheHandlerOnTheSameConnection) {
    HostileServer server;
    server.nextRequest("first");
    server.nextRequest("second");
    server.onRequest([](const Request& request) { return request.target; });
    Peer peer(server);
    EXPECT_EQ(peer.exchange(kGet, 5), "first");
    EXPECT_EQ(peer.exchange(kGet, 6), "second");
    EXPECT_EQ(peer.exchange("GET /third HTTP/1.1\r\n\r\n", 6), "/third");
    EXPECT_EQ(server.counters().connections, 1U);
}

TEST(TheHostileServer, AnswersPipelinedRequestsInOrder) {
    HostileServer server;
    server.onRequest([](const Request& request) { return request.target; });
    EXPECT_EQ(Peer(server).exchange("GET a HTTP/1.1\r\n\r\nGET b HTTP/1.1\r\n\r\n", 2), "ab");
}

TEST(TheHostileServer, AnswersRequestsWithoutAScriptWithAServerError) {
    HostileServer server;
    EXPECT_EQ(Peer(server).exchange(kGet, response(500).size()), response(500));
}

TEST(TheHostileServer, GivesConnectionsTheirScriptsInTheOrderOfTheAccepts) {
    HostileServer server;
    server.nextConnection("first");
    server.nextConnection(Script("second").readRequest().send("read"));
    server.everyConnection("other");
    EXPECT_EQ(Peer(server).read(5), "first");
    Peer second(server);
    EXPECT_EQ(second.read(6), "second");
    EXPECT_EQ(second.exchange(kGet, 4), "read");
    EXPECT_EQ(Peer(server).read(5), "other");
    EXPECT_EQ(Peer(server).read(5), "other");
    EXPECT_EQ(server.counters().requests, 1U);
}

TEST(TheHostileServer, ReadsExactlyTheBytesOfAStep) {
    HostileServer server;
    server.nextConnection(Script().readBytes(3).send("A").readBytes(2).send("B"));
    Peer peer(server);
    peer.send("12");
    settle(server);
    EXPECT_FALSE(peer.hasSomethingToRead());
    EXPECT_EQ(peer.exchange("3", 1), "A");
    EXPECT_EQ(peer.exchange("45" + kGet, 1), "B");
    EXPECT_TRUE(server.waitForRequests(2));
    EXPECT_EQ(server.requests()[1].raw, kGet);
}

TEST(TheHostileServer, DripsEachByteInASegmentOfItsOwn) {
    HostileServer server;
    server.nextConnection(Script().drip("drips", milliseconds(5)));
    const auto start = Clock::now();
    Peer peer(server);
    EXPECT_EQ(peer.read(5), "drips");
    EXPECT_GE(Clock::now() - start, milliseconds(4 * 5));
    tcp_info info{};
    socklen_t size = sizeof info;
    ASSERT_EQ(::getsockopt(peer.socket().fd(), IPPROTO_TCP, TCP_INFO, &info, &size), 0);
    EXPECT_EQ(info.tcpi_data_segs_in, 5U);
}

TEST(TheHostileServer, PausesAndThenSends) {
    HostileServer server;
    server.nextConnection(Script().pause(milliseconds(20)).send("late"));
    const auto start = Clock::now();
    EXPECT_EQ(Peer(server).read(4), "late");
    EXPECT_GE(Clock::now() - start, milliseconds(20));
}

TEST(TheHostileServer, HoldsAnAnswerUntilItsRelease) {
    HostileServer server;
    server.nextRequest(Script().waitForRelease("gate").send("answer"));
    Peer peer(server);
    peer.send(kGet);
    ASSERT_TRUE(server.waitForRequests(1));
    settle(server);
    EXPECT_FALSE(peer.hasSomethingToRead());
    server.release("another gate");
    settle(server);
    EXPECT_FALSE(peer.hasSomethingToRead());
    server.release("gate");
    EXPECT_EQ(peer.read(6), "answer");
}

TEST(TheHostileServer, ClosesWithAFinEvenIfBytesAreLeftUnread) {
    HostileServer server;
    server.nextConnection(Script().readBytes(1).send("bye").close());
    Peer peer(server);
    EXPECT_EQ(peer.exchange("many more bytes", 3), "bye");
    EXPECT_EQ(peer.ending(), 0);
    EXPECT_EQ(server.counters().closedByPeer, 0U);
}

TEST(TheHostileServer, ResetsAfterThePeerHasGotItsBytes) {
    HostileServer server;
    server.nextRequest(Script("HTTP/1.1 20").reset());
    Peer peer(server);
    EXPECT_EQ(peer.exchange(kGet, 11), "HTTP/1.1 20");
    EXPECT_EQ(peer.ending(), ECONNRESET);
}

TEST(TheHostileServer, ReadsOnAfterItHasShutDownItsWritingSide) {
    HostileServer server;
    server.nextConnection(Script("bye").shutdownWrite());
    Peer peer(server);
    EXPECT_EQ(peer.read(3), "bye");
    EXPECT_EQ(peer.ending(), 0);
    peer.send(kGet);
    EXPECT_TRUE(server.waitForRequests(1));
}

TEST(TheHostileServer, StaysSilentUntilThePeerCloses) {
    HostileServer server;
    server.nextConnection(Script().silence());
    auto peer = std::make_unique<Peer>(server);
    peer->send(kGet);
    settle(server);
    EXPECT_FALSE(peer->hasSomethingToRead());
    ASSERT_TRUE(server.waitForClosed(1));
    EXPECT_EQ(server.counters().open, 1U);
    peer.reset();
    EXPECT_TRUE(server.waitForClosed(2));
    EXPECT_EQ(server.counters().open, 0U);
}

TEST(TheHostileServer, StallsAPeerThatHasMuchToSend) {
    HostileServer server;
    server.nextConnection(Script().stall());
    const Peer peer(server);
    // More than the kernel buffers for a server that does not read.
    const std::string much(64 << 20, 'x');
    std::size_t taken = 0;
    while (taken < much.size() && waitForEvents(peer.socket(), POLLOUT, 100)) {
        const auto sent =
            ::send(peer.socket().fd(), much.data() + taken, much.size() - taken, MSG_NOSIGNAL);
        ASSERT_GT(sent, 0);
        taken += static_cast<std::size_t>(sent);
    }
    EXPECT_LT(taken, much.size());
}

TEST(TheHostileServer, SendsOverAndOverUpToACap) {
    HostileServer server;
    server.nextConnection(Script().sendEndlessly("abc", 100000).close());
    Peer peer(server);
    const std::string bytes = peer.read(200000);
    EXPECT_EQ(bytes.size(), 100000U);
    EXPECT_EQ(bytes.substr(0, 7), "abcabca");
    EXPECT_EQ(bytes.substr(99996), "abca");
}

TEST(TheHostileServer, SendsOneRoundAtATimeIfThereIsAnInterval) {
    HostileServer server;
    server.nextConnection(Script().sendEndlessly("abc", 9, milliseconds(5)).close());
    const auto start = Clock::now();
    EXPECT_EQ(Peer(server).read(100), "abcabcabc");
    EXPECT_GE(Clock::now() - start, milliseconds(2 * 5));
}

TEST(TheHostileServer, SendsEndlesslyUntilThePeerIsGoneAndServesOthersMeanwhile) {
    HostileServer server;
    server.nextConnection(Script().sendEndlessly("HTTP/1.1 100 Continue\r\n\r\n"));
    auto peer = std::make_unique<Peer>(server);
    EXPECT_EQ(peer->read(1 << 24).size(), 1U << 24);
    settle(server);
    peer.reset();
    EXPECT_TRUE(server.waitForClosed(2));
}

TEST(TheHostileServer, CountsAPeerThatShutsDownItsWritingSideAsGoneAfterItsLastRequest) {
    HostileServer server;
    server.nextRequest("answer");
    Peer peer(server);
    peer.send(kGet);
    peer.shutdownWrite();
    EXPECT_EQ(peer.read(6), "answer");
    EXPECT_TRUE(server.waitForClosed(1));
    EXPECT_EQ(server.counters().requests, 1U);
}

TEST(TheHostileServer, CountsHowManyConnectionsWereOpenAtTheSameTime) {
    HostileServer server;
    for (int i = 0; i < 20; ++i) {
        const Peer peer(server);
    }
    ASSERT_TRUE(server.waitForClosed(20));
    EXPECT_EQ(server.counters().maxOpen, 1U);
    const Peer first(server);
    const Peer second(server);
    ASSERT_TRUE(server.waitForConnections(22));
    EXPECT_EQ(server.counters().maxOpen, 2U);
    EXPECT_EQ(server.counters().open, 2U);
}

TEST(TheHostileServer, ServesHundredsOfConnectionsAtOnce) {
    HostileServer server;
    server.onRequest([](const Request&) { return Script().waitForRelease("all").send("ok"); });
    std::vector<std::unique_ptr<Peer>> peers(300);
    for (auto& peer : peers) {
        peer = std::make_unique<Peer>(server);
        peer->send(kGet);
    }
    ASSERT_TRUE(server.waitForRequests(300));
    EXPECT_EQ(server.counters().maxOpen, 300U);
    server.release("all");
    for (auto& peer : peers) {
        EXPECT_EQ(peer->read(2), "ok");
    }
}

TEST(TheHostileServer, StopsWaitingForAnEventThatDoesNotHappen) {
    HostileServer server;
    EXPECT_FALSE(server.waitForRequests(1, milliseconds(1)));
    EXPECT_FALSE(server.waitForConnections(1, milliseconds(1)));
    EXPECT_FALSE(server.waitForClosed(1, milliseconds(1)));
}

TEST(TheHostileServer, StopsWithoutWaitingForItsPeers) {
    auto server = std::make_unique<HostileServer>();
    server->nextConnection(Script().silence());
    server->nextConnection(Script().sendEndlessly("x"));
    server->nextConnection(Script().waitForRelease("never"));
    std::vector<std::unique_ptr<Peer>> peers(4);
    for (auto& peer : peers) {
        peer = std::make_unique<Peer>(*server);
    }
    ASSERT_TRUE(server->waitForConnections(4));
    server.reset();
    for (auto& peer : peers) {
        EXPECT_EQ(peer->ending(), 0);
    }
}

TEST(TheHostileServer, RefusesConnectsWhileItDoesNotListen) {
    HostileServer server;
    server.onRequest([](const Request&) { return "ok"; });
    Peer before(server);
    EXPECT_EQ(before.exchange(kGet, 2), "ok");
    server.stopListening();
    EXPECT_EQ(Peer(server).ending(), ECONNREFUSED);
    EXPECT_EQ(before.exchange(kGet, 2), "ok");
    server.listenAgain();
    EXPECT_EQ(Peer(server).exchange(kGet, 2), "ok");
}

TEST(TheHostileServer, ServesOverIpv6) {
    if (!hasIpv6Loopback()) {
        GTEST_SKIP() << "no ::1 on this machine";
    }
    HostileServer server(Loopback::V6);
    server.nextRequest("six");
    EXPECT_EQ(Peer(server, Loopback::V6).exchange(kGet, 3), "six");
    EXPECT_EQ(server.url("/x"), "http://[::1]:" + std::to_string(server.port()) + "/x");
}

}  // namespace
}  // namespace orvx::testing
