// One attempt to reach services, which the tests run in their own process. Threads: the test's and
// those of its servers. No lock.
#include "Probe.h"

#include "HostileServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

/// The seconds of each call, which sets no alarm.
std::vector<unsigned> alarms;

}  // namespace

/// Replaces the system library's function in this program.
extern "C" unsigned alarm(unsigned seconds) noexcept {
    alarms.push_back(seconds);
    return 0;
}

namespace orvx::announce {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Le;
using ::testing::SizeIs;

const std::string kHead = "HTTP/1.1 200 OK\r\n\r\n";

/// Accepts one connection, reads a request and lets `answer` do the rest.
class Server {
  public:
    explicit Server(std::function<void(int connection)> answer) : answer_(std::move(answer)) {
        EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address_), size_), 0);
        EXPECT_EQ(::listen(listener_, 1), 0);
        EXPECT_EQ(::getsockname(listener_, reinterpret_cast<sockaddr*>(&address_), &size_), 0);
        thread_ = std::thread([this] { serve(); });
    }
    ~Server() {
        thread_.join();
        ::close(listener_);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::uint16_t port() const { return ntohs(address_.sin_port); }

    static void send(int connection, const std::string& text) {
        EXPECT_EQ(::send(connection, text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()))
            << std::strerror(errno);
    }
    /// Whether the peer ends the connection without a reset.
    static bool isEndedInOrder(int connection) {
        char byte{};
        return ::recv(connection, &byte, 1, 0) == 0;
    }

  private:
    void serve() {
        const int connection = ::accept(listener_, nullptr, nullptr);
        std::string request;
        char byte{};
        while (request.find("\r\n\r\n") == std::string::npos &&
               ::recv(connection, &byte, 1, 0) == 1) {
            request += byte;
        }
        answer_(connection);
        ::close(connection);
    }

    const std::function<void(int)> answer_;
    sockaddr_in address_{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size_ = sizeof address_;
    const int listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread thread_;
};

class AnAttempt : public ::testing::Test {
  protected:
    AnAttempt() { alarms.clear(); }

    /// The exit code of an attempt that connects to these ports.
    static std::optional<int> run(const std::string& secondsOfEach, const std::string& secondsOfAll,
                                  const std::vector<std::uint16_t>& ports,
                                  const std::string& path = "") {
        std::vector<std::string> arguments{"orvx-announce", "probe", secondsOfEach, secondsOfAll,
                                           path};
        for (const std::uint16_t port : ports) {
            arguments.insert(arguments.end(), {"127.0.0.1", std::to_string(port)});
        }
        std::vector<char*> pointers;
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        return runAsProbe(static_cast<int>(pointers.size()), pointers.data());
    }

    const orvx::testing::HostileServer one;
    const orvx::testing::HostileServer other;
};

TEST_F(AnAttempt, HasATimeForEachService) {
    EXPECT_EQ(run("5", "3600", {one.port(), other.port()}), 0);
    EXPECT_THAT(alarms, ElementsAre(5, 5));
}

TEST_F(AnAttempt, HasATimeForAllServices) {
    EXPECT_EQ(run("5", "3", {one.port(), other.port()}), 0);
    EXPECT_THAT(alarms, AllOf(SizeIs(2), Each(Le(3U))));
}

TEST_F(AnAttempt, EndsWithTheFirstServiceThatDoesNotAnswer) {
    const orvx::testing::RefusedPort refused;
    EXPECT_EQ(run("5", "3600", {refused.port(), other.port()}), 1);
    EXPECT_THAT(alarms, ElementsAre(5));
    EXPECT_EQ(other.counters().connections, 0U);
}

TEST_F(AnAttempt, WaitsForTheAnswerThatFollowsInterimOnes) {
    const std::string interim =
        "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n";
    for (const auto& [answer, expected] : {std::pair<std::string, int>{"HTTP/1.1 204 \r\n\r\n", 0},
                                           {"HTTP/1.1 503 \r\n\r\n", 2},
                                           {"HTTP/1.1 101 \r\n\r\nHTTP/1.1 200 \r\n\r\n", 2},
                                           {"HTTP/1.1 1", 2},
                                           {"", 2}}) {
        orvx::testing::HostileServer server;
        server.nextRequest(orvx::testing::Script().send(interim + answer).close());
        EXPECT_EQ(run("5", "3600", {server.port()}, "/"), expected) << answer;
        server.nextRequest(
            orvx::testing::Script().drip(interim + answer, std::chrono::milliseconds(1)).close());
        EXPECT_EQ(run("5", "3600", {server.port()}, "/"), expected) << answer;
    }
}

TEST_F(AnAttempt, EndsAtAnInterimAnswerWithoutAnEnd) {
    orvx::testing::HostileServer server;
    server.nextRequest(
        orvx::testing::Script().send("HTTP/1.1 100 Continue\r\nA: " + std::string(1'000'000, 'x')));
    EXPECT_EQ(run("5", "3600", {server.port()}, "/"), 2);
}

TEST_F(AnAttempt, ReadsTheAnswerToItsEndBeforeItCloses) {
    const Server server([](int connection) {
        Server::send(connection, kHead + std::string(64 * 1024, 'x'));
        ::shutdown(connection, SHUT_WR);
        EXPECT_TRUE(Server::isEndedInOrder(connection)) << std::strerror(errno);
    });
    EXPECT_EQ(run("5", "3600", {server.port()}, "/"), 0);
}

TEST_F(AnAttempt, ClosesWhenAnAnswerDoesNotEnd) {
    const Server server([](int connection) {
        Server::send(connection, kHead + "text");
        EXPECT_TRUE(Server::isEndedInOrder(connection)) << std::strerror(errno);
    });
    EXPECT_EQ(run("5", "3600", {server.port()}, "/"), 0);
}

TEST_F(AnAttempt, ClosesWhenAnAnswerIsEndless) {
    const Server server([](int connection) {
        Server::send(connection, kHead);
        const std::string text(16 * 1024, 'x');
        while (::send(connection, text.data(), text.size(), MSG_NOSIGNAL) > 0) {
        }
    });
    EXPECT_EQ(run("5", "3600", {server.port()}, "/"), 0);
}

}  // namespace
}  // namespace orvx::announce
