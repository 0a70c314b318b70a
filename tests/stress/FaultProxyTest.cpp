// The effect of each fault on a plain socket client, with a server that answers normally.
//
// Threads: the test's, the proxy's and the server's; they share sockets only.

#include "FaultProxy.h"

#include <gmock/gmock.h>

#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include <cerrno>
#include <string>
#include <vector>

#include "HostileServer.h"

namespace orvx::stress {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ::testing::SizeIs;

const std::string kRequest = "HEAD /lamp HTTP/1.1\r\nHost: localhost\r\n\r\n";
const std::string kAnswer = testing::response(200, {}, std::string(400, 'x'));

class AFaultProxy : public ::testing::Test {
  protected:
    AFaultProxy() {
        server.onRequest([](const testing::Request&) { return testing::Script(kAnswer); });
    }

    void harmAnswers(const Faults& faults) {
        proxy.setPlanner([faults](auto&) { return FaultProxy::Plan{{}, faults}; });
    }
    void harmRequests(const Faults& faults) {
        proxy.setPlanner([faults](auto&) { return FaultProxy::Plan{faults, {}}; });
    }

    testing::Socket connect() const {
        testing::Socket socket = testing::connectLoopback(proxy.port());
        EXPECT_TRUE(testing::waitForEvents(socket, POLLOUT, 10'000));
        return socket;
    }
    static void send(const testing::Socket& socket, const std::string& bytes) {
        EXPECT_EQ(::send(socket.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /// The bytes up to the given number or the end of the connection. `end` is 0 for a FIN,
    /// otherwise an errno.
    struct Received {
        std::string bytes;
        int end = -1;
    };
    static Received receive(const testing::Socket& socket, std::size_t wanted = Faults::kNever) {
        Received received;
        while (received.bytes.size() < wanted && received.end < 0) {
            if (!testing::waitForEvents(socket, POLLIN, 10'000)) {
                ADD_FAILURE() << "nothing came for ten seconds";
                return received;
            }
            std::array<char, 100> piece;
            const auto size = ::recv(socket.fd(), piece.data(), piece.size(), 0);
            if (size > 0) {
                received.bytes.append(piece.data(), static_cast<std::size_t>(size));
            } else {
                received.end = size == 0 ? 0 : errno;
            }
        }
        return received;
    }
    /// Sends a request over a new connection, and reads the answer or the end of the connection.
    Received ask() const {
        const testing::Socket socket = connect();
        send(socket, kRequest);
        return receive(socket, kAnswer.size());
    }
    static int connectError(std::uint16_t port) {
        const testing::Socket socket = testing::connectLoopback(port);
        EXPECT_TRUE(testing::waitForEvents(socket, POLLOUT, 10'000));
        int error = 0;
        socklen_t size = sizeof error;
        ::getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &size);
        return error;
    }

    testing::HostileServer server;
    FaultProxy proxy{server.port(), 1};
};

TEST_F(AFaultProxy, ForwardsEverythingWithoutFaults) {
    const testing::Socket socket = connect();
    for (int i = 0; i < 3; ++i) {
        send(socket, kRequest);
        EXPECT_EQ(receive(socket, kAnswer.size()).bytes, kAnswer);
    }
    EXPECT_EQ(server.requests().at(2).raw, kRequest);
    EXPECT_EQ(server.counters().connections, 1U);
    EXPECT_EQ(proxy.counters().connections, 1U);
    EXPECT_EQ(proxy.counters().open, 1U);
}

TEST_F(AFaultProxy, PassesOnThatEitherSideCloses) {
    {
        const testing::Socket socket = connect();
        ASSERT_TRUE(server.waitForConnections(1));
    }
    EXPECT_TRUE(server.waitForClosed(1));
    server.everyConnection(testing::Script("bye").close());
    const Received received = receive(connect());
    EXPECT_EQ(received.bytes, "bye");
    EXPECT_EQ(received.end, 0);
}

TEST_F(AFaultProxy, DelaysEachPiece) {
    Faults faults;
    faults.pieceBytes = 10;
    faults.longestDelay = 20ms;
    harmAnswers(faults);
    const auto begin = Clock::now();
    EXPECT_EQ(ask().bytes, kAnswer);
    EXPECT_GT(Clock::now() - begin, 100ms);  // more than 40 pieces, with an average delay of 10 ms
    EXPECT_GT(proxy.counters().delayed, 30U);
}

TEST_F(AFaultProxy, LimitsTheBandwidth) {
    Faults faults;
    faults.bytesPerSecond = 1'000;
    harmAnswers(faults);
    const auto begin = Clock::now();
    EXPECT_EQ(ask().bytes, kAnswer);
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(kAnswer.size()));
}

TEST_F(AFaultProxy, SlicesIntoTinyPieces) {
    Faults faults;
    faults.pieceBytes = 1;
    harmRequests(faults);
    EXPECT_EQ(ask().bytes, kAnswer);
    EXPECT_EQ(proxy.counters().sliced, kRequest.size() - 1);
}

TEST_F(AFaultProxy, ResetsAfterSoManyBytesOfTheAnswer) {
    Faults faults;
    faults.resetAfter = 30;
    harmAnswers(faults);
    const Received received = ask();
    EXPECT_EQ(received.bytes, kAnswer.substr(0, 30));
    EXPECT_EQ(received.end, ECONNRESET);
    EXPECT_EQ(proxy.counters().resets, 1U);
}

TEST_F(AFaultProxy, ResetsAfterSoManyBytesOfTheRequest) {
    Faults faults;
    faults.resetAfter = 10;
    harmRequests(faults);
    const Received received = ask();
    EXPECT_EQ(received.bytes, "");
    EXPECT_EQ(received.end, ECONNRESET);
    EXPECT_TRUE(server.waitForClosed(1));
    EXPECT_EQ(server.counters().requests, 0U);
}

TEST_F(AFaultProxy, ClosesAfterSoManyBytes) {
    Faults faults;
    faults.closeAfter = 30;
    harmAnswers(faults);
    const Received received = ask();
    EXPECT_EQ(received.bytes, kAnswer.substr(0, 30));
    EXPECT_EQ(received.end, 0);
    EXPECT_EQ(proxy.counters().closes, 1U);
    EXPECT_TRUE(server.waitForClosed(1));
}

TEST_F(AFaultProxy, SwallowsEverythingAsABlackHole) {
    Faults faults;
    faults.blackHole = true;
    harmRequests(faults);
    const testing::Socket socket = connect();
    send(socket, kRequest);
    const auto deadline = Clock::now() + 10s;
    while (proxy.counters().swallowed == 0) {
        ASSERT_LT(Clock::now(), deadline);
        std::this_thread::yield();
    }
    EXPECT_EQ(server.counters().requests, 0U);
    EXPECT_EQ(proxy.counters().open, 1U);
    proxy.cease();
    EXPECT_EQ(receive(socket).end, ECONNRESET);
    EXPECT_EQ(ask().bytes, kAnswer);
}

TEST_F(AFaultProxy, RefusesForAWhileAtTheSamePort) {
    const testing::Socket before = connect();
    ASSERT_TRUE(server.waitForConnections(1));
    proxy.stopListening();
    EXPECT_EQ(connectError(proxy.port()), ECONNREFUSED);
    send(before, kRequest);
    EXPECT_EQ(receive(before, kAnswer.size()).bytes, kAnswer);
    proxy.listenAgain();
    EXPECT_EQ(ask().bytes, kAnswer);
    EXPECT_EQ(proxy.counters().refusals, 1U);
}

TEST_F(AFaultProxy, ForwardsTheRestWithoutFaultsOnceTheyCease) {
    Faults faults;
    faults.longestDelay = 24h;
    harmAnswers(faults);
    const testing::Socket socket = connect();
    send(socket, kRequest);
    const auto deadline = Clock::now() + 10s;
    while (proxy.counters().delayed == 0) {
        ASSERT_LT(Clock::now(), deadline);
        std::this_thread::yield();
    }
    proxy.cease();
    EXPECT_EQ(receive(socket, kAnswer.size()).bytes, kAnswer);
}

TEST_F(AFaultProxy, EndsConnectionsWhoseServerIsGone) {
    const testing::RefusedPort nobody;
    proxy.setServerPort(nobody.port());
    EXPECT_EQ(receive(connect()).end, 0);
    proxy.setServerPort(server.port());
    EXPECT_EQ(ask().bytes, kAnswer);
}

TEST_F(AFaultProxy, DrawsTheSameFaultsFromTheSameSeed) {
    std::vector<std::vector<std::uint64_t>> drawn;
    for (const std::uint64_t seed : {7U, 7U, 8U}) {
        drawn.emplace_back();
        FaultProxy other(server.port(), seed);
        other.setPlanner([&drawn](std::mt19937_64& random) {
            drawn.back().push_back(random());
            return FaultProxy::Plan{};
        });
        for (int i = 0; i < 5; ++i) {
            const testing::Socket socket = testing::connectLoopback(other.port());
            send(socket, kRequest);
            receive(socket, kAnswer.size());
        }
    }
    EXPECT_THAT(drawn.at(0), SizeIs(5));
    EXPECT_EQ(drawn.at(0), drawn.at(1));
    EXPECT_NE(drawn.at(0), drawn.at(2));
}

// The proxy's thread once ended when it had nothing to wait for, and every order hung.
TEST_F(AFaultProxy, ObeysWithoutAnyConnectionWhileItDoesNotListen) {
    for (int i = 0; i < 100; ++i) {
        proxy.stopListening();
        EXPECT_EQ(proxy.counters().open, 0U);
        proxy.listenAgain();
    }
    EXPECT_EQ(ask().bytes, kAnswer);
}

/// Records the bytes that each end of a connection sent.
class Tap final : public ITap {
  public:
    explicit Tap(std::vector<std::string>& notes) : notes_(notes) {}
    ~Tap() override { notes_.push_back("> " + up_ + "< " + down_); }
    void sentByClient(std::string_view bytes) override { up_ += bytes; }
    void sentByServer(std::string_view bytes) override { down_ += bytes; }

  private:
    std::vector<std::string>& notes_;
    std::string up_;
    std::string down_;
};

/// Records the bytes that reached the server.
class ArrivalTap final : public ITap {
  public:
    explicit ArrivalTap(std::vector<std::string>& notes) : notes_(notes) {}
    ~ArrivalTap() override {
        notes_.push_back(std::to_string(bytes_) + (isLate_ ? " late" : " in time"));
    }
    void sentByClient(std::string_view /*bytes*/) override {}
    void sentByServer(std::string_view /*bytes*/) override {}
    void reachedServer(std::size_t bytes, bool isLate) override {
        bytes_ += bytes;
        isLate_ = isLate;
    }

  private:
    std::vector<std::string>& notes_;
    std::size_t bytes_ = 0;
    bool isLate_ = false;
};

TEST_F(AFaultProxy, ReportsWhetherTheClientHadEndedBeforeItsRequestReachedTheServer) {
    std::vector<std::string> notes;
    {
        FaultProxy tapped(server.port(), 1,
                          [&notes] { return std::make_unique<ArrivalTap>(notes); });
        tapped.setPlanner([](auto&) {
            FaultProxy::Plan plan;
            plan.toServer.longestDelay = 1h;
            return plan;
        });
        const auto sendAndWait = [&](const testing::Socket& socket, std::size_t delayed) {
            ASSERT_TRUE(testing::waitForEvents(socket, POLLOUT, 10'000));
            send(socket, kRequest);
            const auto deadline = Clock::now() + 10s;
            while (tapped.counters().delayed < delayed) {
                ASSERT_LT(Clock::now(), deadline);
                std::this_thread::yield();
            }
        };
        const testing::Socket stays = testing::connectLoopback(tapped.port());
        sendAndWait(stays, 1);
        sendAndWait(testing::connectLoopback(tapped.port()), 2);
        tapped.cease();
        EXPECT_EQ(receive(stays, kAnswer.size()).bytes, kAnswer);
        EXPECT_TRUE(server.waitForClosed(1));
    }
    const std::string size = std::to_string(kRequest.size());
    EXPECT_THAT(notes, ::testing::UnorderedElementsAre(size + " in time", size + " late"));
}

TEST_F(AFaultProxy, ShowsTheSentBytesHoweverTheyArrive) {
    std::vector<std::string> notes;
    {
        FaultProxy tapped(server.port(), 1, [&notes] { return std::make_unique<Tap>(notes); });
        tapped.setPlanner([](auto&) {
            FaultProxy::Plan plan;
            plan.toServer.pieceBytes = 1;
            plan.toClient.resetAfter = 5;
            return plan;
        });
        const testing::Socket socket = testing::connectLoopback(tapped.port());
        ASSERT_TRUE(testing::waitForEvents(socket, POLLOUT, 10'000));
        send(socket, kRequest);
        EXPECT_EQ(receive(socket).end, ECONNRESET);
    }
    EXPECT_THAT(notes, ::testing::ElementsAre("> " + kRequest + "< " + kAnswer));
}

}  // namespace
}  // namespace orvx::stress
