// The path to the server: through a proxy, or over a Unix domain socket.

#include "HttpTest.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "Loopback.h"
#include "StopBound.h"

namespace orvx::testing {
namespace {

using communication::HttpCredentials;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

/// `server_` is the proxy; no other server receives requests.
class TheWayThroughAProxy : public HttpTest {
  protected:
    TheWayThroughAProxy() {
        config.proxy = "http://127.0.0.1:" + std::to_string(server_.port());
        server_.onRequest([](const Request&) { return response(200); });
    }
    void useTls() { config.tls.enabled = true; }
    std::shared_ptr<HttpCredentials> token(const std::string& text) const {
        auto credentials = std::make_shared<HttpCredentials>();
        credentials->setBearerToken(text);
        return credentials;
    }
    SessionPointer elsewhere() { return session(8500, config, "registry.invalid"); }
    std::string seen() const { return server_.requests().back().raw; }
    HttpResponse outcomeOfTunnel(const Script& answer) {
        useTls();
        server_.nextRequest(answer);
        return put(elsewhere());
    }
    CommunicationStatus statusOfTunnel(const Script& answer) {
        return outcomeOfTunnel(answer).getCommunicationStatus();
    }

    HttpConfig config;
};

TEST_F(TheWayThroughAProxy, TellsItThePlainRequestsWholeAddress) {
    EXPECT_EQ(codeOf(put(elsewhere(), "/v1/lamp?x=%41", "{}")), 200);
    EXPECT_THAT(seen(), StartsWith("PUT http://registry.invalid:8500/v1/lamp?x=%41 HTTP/1.1\r\n"));
    EXPECT_THAT(seen(), HasSubstr("Host: registry.invalid:8500\r\n"));
    EXPECT_EQ(codeOf(head(elsewhere(), "lamp")), 200);
    EXPECT_THAT(seen(), StartsWith("HEAD http://registry.invalid:8500/lamp HTTP/1.1\r\n"));
}

// Before, the address had the port and the Host header did not, which proxies may refuse.
TEST_F(TheWayThroughAProxy, IsToldTheSameHostTwiceAtTheDefaultPort) {
    EXPECT_EQ(codeOf(put(session(80, config, "registry.invalid"), "/lamp")), 200);
    EXPECT_THAT(seen(), StartsWith("PUT http://registry.invalid/lamp HTTP/1.1\r\n"));
    EXPECT_THAT(seen(), HasSubstr("Host: registry.invalid\r\n"));
}

TEST_F(TheWayThroughAProxy, KeepsTheConnection) {
    const SessionPointer session = elsewhere();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(codeOf(put(session)), 200);
    }
    EXPECT_EQ(server_.counters().connections, 1U);
}

TEST_F(TheWayThroughAProxy, IsTakenWhateverTheEnvironmentSays) {
    ::setenv("no_proxy", "*", 1);
    EXPECT_EQ(codeOf(put(elsewhere())), 200);
    ::unsetenv("no_proxy");
}

TEST_F(TheWayThroughAProxy, ShowsCredentialsToTheOneTheyAreFor) {
    config.credentials = token("for-registry");
    config.proxyCredentials = token("for-proxy");
    put(elsewhere());
    EXPECT_THAT(seen(), HasSubstr("\r\nAuthorization: Bearer for-registry\r\n"));
    EXPECT_THAT(seen(), HasSubstr("\r\nProxy-Authorization: Bearer for-proxy\r\n"));
    config.headers = {{"X-Team", "lighting"}};
    statusOfTunnel(response(403));
    EXPECT_THAT(seen(), StartsWith("CONNECT registry.invalid:8500 HTTP/1.1\r\n"));
    EXPECT_THAT(seen(), HasSubstr("\r\nProxy-Authorization: Bearer for-proxy\r\n"));
    EXPECT_THAT(seen(), Not(HasSubstr("for-registry")));
    EXPECT_THAT(seen(), Not(HasSubstr("X-Team")));
}

TEST_F(TheWayThroughAProxy, ShowsItTheCredentialsOfTheMoment) {
    config.proxyCredentials = token("old");
    const SessionPointer session = elsewhere();
    put(session);
    config.proxyCredentials->setBasic("a", "b");
    put(session);
    EXPECT_THAT(seen(), HasSubstr("Proxy-Authorization: Basic YTpi\r\n"));
    config.proxyCredentials->clear();
    put(session);
    EXPECT_THAT(seen(), Not(HasSubstr("Proxy-Authorization")));
}

TEST_F(TheWayThroughAProxy, IsNoConnectionWhenItRefusesTheTunnel) {
    for (const int code : {302, 403, 404, 407, 502}) {
        EXPECT_EQ(statusOfTunnel(response(code, {}, "not you")), CommunicationStatus::ConnectFailed)
            << code;
    }
    EXPECT_EQ(statusOfTunnel(Script("HTTP/1.1 407 No\r\n\r\n").close()),
              CommunicationStatus::ConnectFailed);
    EXPECT_EQ(statusOfTunnel(Script().close()), CommunicationStatus::ConnectFailed);
    config.connectTimeout = std::chrono::milliseconds(200);
    EXPECT_EQ(statusOfTunnel("HTTP/1.1 407 "), CommunicationStatus::TimedOut) << "of connecting";
}

TEST_F(TheWayThroughAProxy, IsNoConnectionWhenItsAnswerIsNoneOrNoneThatEnds) {
    const std::string refusal = "HTTP/1.1 407 No\r\n";
    for (const Script& answer :
         {Script("garbage\r\n\r\n"), Script("HTTP/2 200\r\n\r\n"), Script("HTTP/1.1 200 OK\n\n"),
          Script("HTTP/1.1 200").close(), Script(refusal + "\r\n").sendEndlessly("body"),
          Script(refusal + "Content-Length: 9999999\r\n\r\n").sendEndlessly("body"),
          Script(refusal + "Transfer-Encoding: chunked\r\n\r\n").sendEndlessly("4\r\nbody\r\n"),
          Script(refusal).sendEndlessly("A: b\r\n"), Script(refusal + "A: ").sendEndlessly("b"),
          Script("HTTP/1.1 200 ").sendEndlessly("b"),
          Script().sendEndlessly("HTTP/1.1 103 Hints\r\n\r\n"),
          Script("HTTP/1.1 200 OK\r\n\r\nHello, client")}) {
        EXPECT_EQ(statusOfTunnel(answer), CommunicationStatus::ConnectFailed);
    }
}

// Before, there was a cause only if the proxy had answered with another status code.
TEST_F(TheWayThroughAProxy, HasACauseWhenThereIsNoTunnel) {
    EXPECT_EQ(outcomeOfTunnel(response(403)).getCause(), "the proxy answered HTTP 403");
    EXPECT_EQ(outcomeOfTunnel("garbage\r\n\r\n").getCause(), "the proxy's answer is not valid");
    EXPECT_EQ(outcomeOfTunnel(Script().close()).getCause(), "the proxy ended the connection");
    EXPECT_EQ(outcomeOfTunnel(Script().reset()).getCause(), "the proxy ended the connection");
}

TEST_F(TheWayThroughAProxy, IsGivenUpWithTheContextWhileTheProxyTalks) {
    useTls();
    server_.onRequest([](const Request&) {
        return Script("HTTP/1.1 407 No\r\n")
            .sendEndlessly("A: b\r\n", Script::kUncapped, std::chrono::milliseconds(1));
    });
    Outcome outcome;
    elsewhere()->sendHeadRequest("/", outcome.handler());
    ASSERT_TRUE(server_.waitForRequests(1));
    const auto start = std::chrono::steady_clock::now();
    context_.deinit();
    EXPECT_LT(std::chrono::steady_clock::now() - start, kStopBound);
    EXPECT_EQ(outcome.calls(), 0);
}

TEST_F(TheWayThroughAProxy, IsNoTlsWhenTheTunnelLeadsToNone) {
    EXPECT_EQ(statusOfTunnel(Script("HTTP/1.1 200 OK\r\n\r\n").close()),
              CommunicationStatus::TlsFailed);
}

TEST_F(TheWayThroughAProxy, IsNoConnectionWhenNobodyIsThere) {
    const RefusedPort refused;
    config.proxy = "http://127.0.0.1:" + std::to_string(refused.port());
    EXPECT_EQ(put(elsewhere()).getCommunicationStatus(), CommunicationStatus::ConnectFailed);
}

TEST_F(TheWayThroughAProxy, IsOneWithAName) {
    config.proxy = "http://localhost:" + std::to_string(server_.port());
    EXPECT_EQ(codeOf(put(elsewhere())), 200);
}

/// A listener at a path, and connections that wait to be accepted.
class FullUnixSocket {
  public:
    FullUnixSocket() : path_(::testing::TempDir() + "orvx-full-" + std::to_string(::getpid())) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        const auto* const to = reinterpret_cast<const sockaddr*>(&address);
        ::unlink(path_.c_str());
        EXPECT_EQ(::bind(listener_.fd(), to, sizeof address), 0);
        EXPECT_EQ(::listen(listener_.fd(), 0), 0);
        do {
            waiting_.push_back(makeSocket());
        } while (::connect(waiting_.back().fd(), to, sizeof address) == 0);
        EXPECT_EQ(errno, EAGAIN);
    }
    ~FullUnixSocket() { ::unlink(path_.c_str()); }
    FullUnixSocket(const FullUnixSocket&) = delete;
    FullUnixSocket& operator=(const FullUnixSocket&) = delete;

    const std::string& path() const { return path_; }
    /// Accepts all connections that were made first.
    void drain() {
        for (std::size_t left = waiting_.size() - 1; left > 0; --left) {
            accept();
        }
    }
    Socket accept() {
        EXPECT_TRUE(waitForEvents(listener_, POLLIN, 10'000));
        return Socket(::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    }

  private:
    static Socket makeSocket() {
        return Socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    }

    const std::string path_;
    const Socket listener_ = makeSocket();
    std::vector<Socket> waiting_;
};

class TheWayOverAUnixSocket : public HttpTest {
  protected:
    /// Sends a PUT, and waits until the first attempt to connect has been made.
    void startPut(const HttpConfig& config, const Outcome& outcome) {
        session(config)->sendPutRequestJson("/", "", 0, Outcome(outcome).handler());
        head(context_.getUnavailableSession());
    }
};

// Before, the request failed at once.
TEST_F(TheWayOverAUnixSocket, IsTriedAgainWhileTheServerAcceptsNoConnection) {
    FullUnixSocket full;
    HttpConfig config;
    config.unixSocketPath = full.path();
    Outcome outcome;
    startPut(config, outcome);
    full.drain();
    const Socket accepted = full.accept();
    ASSERT_TRUE(waitForEvents(accepted, POLLIN, 10'000));
    const std::string answer = response(200);
    EXPECT_EQ(::send(accepted.fd(), answer.data(), answer.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(answer.size()));
    EXPECT_EQ(outcome.statusCode(), 200);
}

TEST_F(TheWayOverAUnixSocket, IsGivenUpWhenTheServerAcceptsNoConnectionInTime) {
    const FullUnixSocket full;
    HttpConfig config;
    config.unixSocketPath = full.path();
    config.connectTimeout = std::chrono::milliseconds(200);
    const HttpResponse response = put(session(config));
    EXPECT_EQ(response.getCommunicationStatus(), CommunicationStatus::ConnectFailed);
    EXPECT_THAT(response.getCause(), HasSubstr(full.path()));
}

TEST_F(TheWayOverAUnixSocket, IsNoConnectionWhenNobodyIsThere) {
    HttpConfig config;
    config.unixSocketPath = ::testing::TempDir() + "orvx-nobody.socket";
    EXPECT_EQ(put(session(config)).getCommunicationStatus(), CommunicationStatus::ConnectFailed);
    EXPECT_EQ(server_.counters().connections, 0U);
}

}  // namespace
}  // namespace orvx::testing
