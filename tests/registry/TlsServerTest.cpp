// Tests the registry over TLS: accepted clients, files that are read again, and hostile clients
// before their first request.
// The registry runs on its own thread, the test on the main one; they share sockets only.
// There is no lock.

#include <gmock/gmock.h>
#include <openssl/ssl.h>
#include <openssl/tls1.h>

#include <boost/asio/ssl/context.hpp>
#include <boost/beast/http/status.hpp>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "FileContent.h"
#include "RunningRegistry.h"
#include "TemporaryFolder.h"
#include "Tls.h"
#include "TlsConnection.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

class ARegistryOverTls : public ::testing::Test {
  protected:
    ARegistryOverTls() {
        certificates_.make("registry");
        options_.tls.certificate = certificates_.file("registry.pem");
        options_.tls.key = certificates_.file("registry.key");
    }

    void start() { registry_ = std::make_unique<RunningRegistry>(options_); }

    TlsConnection connect(const std::string& own = {}) {
        return TlsConnection(registry_->port(), certificates_, own);
    }

    std::string metrics() { return connect().ask(makeRequest("GET", "/-/metrics")).body(); }

    /// Waits until the registry has counted that number of dropped connections.
    void awaitDrops(const std::string& reason, int count) {
        const std::string line =
            "drops_total{reason=\"" + reason + "\"} " + std::to_string(count) + "\n";
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (metrics().find(line) == std::string::npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << metrics();
        }
    }

    const TemporaryFolder folder_;
    const Certificates certificates_{folder_ / ""};
    RegistryOptions options_;
    std::unique_ptr<RunningRegistry> registry_;
};

TEST_F(ARegistryOverTls, AnswersAsWithoutTls) {
    start();
    TlsConnection connection = connect();
    const auto put = connection.ask(makeRequest("PUT", "/a", R"({"name":"lamp"})"));
    EXPECT_EQ(put.result(), http::status::created);
    const std::string location(put[http::field::location]);
    EXPECT_EQ(connection.ask(makeRequest("HEAD", location)).result(), http::status::ok);
    EXPECT_THAT(connection.ask(makeRequest("GET", "/")).body(), HasSubstr("lamp"));
    const auto page = connection.ask("GET / HTTP/1.1\r\nAccept: text/html\r\n\r\n");
    EXPECT_THAT(page.body(), HasSubstr("<!doctype html>"));
    EXPECT_EQ(connection.ask(makeRequest("DELETE", location)).result(), http::status::ok);
    const auto last = connection.ask("GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(last.body(), R"({"entries":[]})");
    EXPECT_TRUE(connection.isClosedByPeer());  // and says so: nobody has cut it off
}

TEST_F(ARegistryOverTls, SendsLongListsAndTakesLongBodies) {
    start();
    TlsConnection connection = connect();
    const std::string service = R"({"a":")" + std::string(700'000, 'x') + R"("})";
    const auto put = connection.ask(makeRequest("PUT", "/a", service));
    EXPECT_THAT(connection.ask(makeRequest("GET", "/")).body(), HasSubstr(service));
    EXPECT_THAT(connection.ask(makeRequest("GET", std::string(put[http::field::location]))).body(),
                HasSubstr(service));
}

TEST_F(ARegistryOverTls, StreamsWhatChanges) {
    start();
    TlsConnection watcher = connect();
    watcher.send(makeRequest("GET", "/-/watch"));
    watcher.readUntil("event: listed\n");
    connect().ask(makeRequest("PUT", "/lamp", "{}"));
    EXPECT_THAT(watcher.readUntil("/lamp"), HasSubstr("event: put\n"));
}

TEST_F(ARegistryOverTls, AcceptsOnlyClientsWithACertificateOfTheAuthority) {
    options_.tls.authority = certificates_.file("ca.pem");
    certificates_.make("lamp");
    start();
    EXPECT_EQ(connect("lamp").ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    EXPECT_THROW(connect().ask(makeRequest("HEAD", "/")), std::runtime_error);
    const TemporaryFolder elsewhere;
    const Certificates others(elsewhere / "");
    others.make("lamp");
    std::filesystem::copy_file(others.file("lamp.pem"), certificates_.file("evil.pem"));
    std::filesystem::copy_file(others.file("lamp.key"), certificates_.file("evil.key"));
    EXPECT_THROW(connect("evil").ask(makeRequest("HEAD", "/")), std::runtime_error);
    EXPECT_THAT(connect("lamp").ask(makeRequest("GET", "/-/metrics")).body(),
                HasSubstr("drops_total{reason=\"handshake\"} 2\n"));
}

TEST_F(ARegistryOverTls, ReadsItsFilesAgainAndEndsEarlierConnections) {
    options_.tls.authority = certificates_.file("ca.pem");
    certificates_.make("lamp");
    start();
    TlsConnection idle = connect("lamp");
    idle.ask(makeRequest("HEAD", "/"));
    TlsConnection watcher = connect("lamp");
    watcher.send(makeRequest("GET", "/-/watch"));
    watcher.readUntil("event: listed\n");
    const std::string before = certificates_.file("before.");
    std::filesystem::copy_file(certificates_.file("lamp.pem"), before + "pem");
    std::filesystem::copy_file(certificates_.file("lamp.key"), before + "key");
    const Certificates renewed(folder_ / "");  // another authority in the same file
    renewed.make("registry");
    renewed.make("lamp");
    const auto begin = std::chrono::steady_clock::now();
    registry_->reload();
    EXPECT_THROW(idle.receive(true), std::runtime_error);
    EXPECT_THROW(watcher.readUntil("never"), std::runtime_error);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s);  // it did not just wait in vain
    EXPECT_EQ(connect("lamp").ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    EXPECT_THROW(connect("before").ask(makeRequest("HEAD", "/")), std::runtime_error);
}

TEST_F(ARegistryOverTls, RefusesFilesThatAreNone) {
    const auto expectRefused = [this](const std::string& why) {
        EXPECT_THAT([this] { RegistryServer{options_}; }, ThrowsMessage<FileError>(HasSubstr(why)));
    };
    options_.port = 0;
    options_.tls.key = certificates_.file("ca.key");
    expectRefused("ca.key: ");
    options_.tls.key = folder_ / "none";
    expectRefused("none: it cannot be read");
    options_.tls.key = certificates_.file("registry.key");
    options_.tls.authority = certificates_.file("registry.key");
    expectRefused("registry.key: it holds no certificate in PEM");
    options_.tls.certificate = certificates_.file("registry.key");
    expectRefused("registry.key: it holds no certificate in PEM");
}

TEST_F(ARegistryOverTls, DropsAHandshakeThatStalls) {
    options_.requestTimeout = 1s;
    start();
    RawConnection silent = registry_->connect();
    RawConnection slow = registry_->connect();
    slow.send(std::string("\x16\x03\x01\x02\x00\x01", 6));
    EXPECT_TRUE(silent.endsWithin(10s));
    EXPECT_TRUE(slow.endsWithin(10s));
    awaitDrops("timeout", 2);
}

TEST_F(ARegistryOverTls, CountsAHandshakeThatStallsAmongTheConnections) {
    options_.maxConnections = 3;
    start();
    std::vector<RawConnection> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(registry_->connect());
    }
    EXPECT_EQ(connect().ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    for (std::size_t i = 0; i < 17; ++i) {
        EXPECT_TRUE(silent[i].endsWithin(5s)) << i;  // long before it is too slow
    }
}

TEST_F(ARegistryOverTls, DropsAClientThatDoesNotSpeakTls) {
    start();
    RawConnection plain = registry_->connect();
    plain.send(makeRequest("PUT", "/a", "{}"));
    EXPECT_TRUE(plain.endsWithin(10s));
    std::minstd_rand random(1);
    for (int i = 0; i < 100; ++i) {
        std::string bytes(1 + random() % 2'000, ' ');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        RawConnection connection = registry_->connect();
        connection.send((i % 2 == 0 ? std::string("\x16\x03\x01") : std::string()) + bytes);
        connection.endSending();
        EXPECT_TRUE(connection.endsWithin(10s));
    }
    awaitDrops("handshake", 101);
    EXPECT_EQ(connect().ask(makeRequest("GET", "/")).body(), R"({"entries":[]})");
}

TEST_F(ARegistryOverTls, RefusesInvalidRequestsAsWithoutTls) {
    start();
    const std::string filler(100'000, 'x');
    const std::string chunks = "PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const std::string& request :
         {filler, "GET /" + filler + " HTTP/1.1\r\n\r\n",
          "GET / HTTP/1.1\r\n" + filler + ": a\r\n\r\n", chunks + "2;" + filler + "\r\n{}\r\n",
          chunks + "2\r\n{}\r\n0\r\nA: " + filler + "\r\n\r\n", chunks + "FFFFFFFFFFFFFFFFF\r\n",
          std::string("PUT /a HTTP/1.1\r\nContent-Length: 1048577\r\n\r\n"),
          std::string("PUT /a HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n{}")}) {
        TlsConnection connection = connect();
        EXPECT_EQ(connection.ask(request).result_int() / 100, 4U) << request.substr(0, 80);
        EXPECT_TRUE(connection.isClosedByPeer()) << request.substr(0, 80);
    }
    TlsConnection connection = connect();
    const std::string deep = R"({"a":)" + std::string(100'000, '[');
    EXPECT_EQ(connection.ask(makeRequest("PUT", "/a", deep)).result(), http::status::bad_request);
    EXPECT_EQ(connection.ask(makeRequest("GET", "/")).body(), R"({"entries":[]})");
}

TEST_F(ARegistryOverTls, DropsAClientThatReadsNoneOfItsAnswers) {
    options_.writeTimeout = 100ms;
    start();
    const std::string service = R"({"a":")" + std::string(500'000, 'x') + R"("})";
    connect().ask(makeRequest("PUT", "/a", service));
    TlsConnection mute = connect();
    EXPECT_THROW(
        {
            for (const auto end = std::chrono::steady_clock::now() + 10s;
                 std::chrono::steady_clock::now() < end;) {
                mute.send(makeRequest("GET", "/"));
            }
        },
        std::runtime_error);
    awaitDrops("timeout", 1);
}

TEST_F(ARegistryOverTls, SurvivesAClientThatEndsAnywhere) {
    start();
    for (int i = 0; i < 30; ++i) {
        TlsConnection connection = connect();
        if (i % 3 > 0) {
            connection.send(std::string("PUT /a HTTP/1.1\r\nContent-Length: 9\r\n\r\n")
                                .substr(0, static_cast<std::size_t>(i)));
        }
        if (i % 3 == 2) {
            connection.send(makeRequest("GET", "/-/watch"));
        }
    }
    EXPECT_EQ(connect().ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

TEST_F(ARegistryOverTls, DropsAConnectionBeforeTheHandshakeWhenItsAddressExceedsTheRate) {
    options_.rate = 1;
    start();
    std::vector<RawConnection> connections;
    for (int i = 0; i < 50; ++i) {
        connections.push_back(registry_->connect());
    }
    EXPECT_TRUE(connections.back().endsWithin(5s));  // long before it is too slow
    EXPECT_FALSE(connections.front().endsWithin(0s));
}

TEST(AConnectionOverTls, ExpectsTheNameThatACertificateContains) {
    const auto context = makeClientTlsContext({});
    const auto expected = [&](const std::string& host) {
        const std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context->native_handle()),
                                                            SSL_free);
        expectHost(*ssl, host);
        const std::unique_ptr<char, void (*)(void*)> address(
            X509_VERIFY_PARAM_get1_ip_asc(SSL_get0_param(ssl.get())),
            [](void* text) { OPENSSL_free(text); });
        const auto textOf = [](const char* text) { return std::string(text ? text : "none"); };
        return std::vector{textOf(SSL_get_servername(ssl.get(), TLSEXT_NAMETYPE_host_name)),
                           textOf(X509_VERIFY_PARAM_get0_host(SSL_get0_param(ssl.get()), 0)),
                           textOf(address.get())};
    };
    EXPECT_THAT(expected("localhost"), ElementsAre("localhost", "localhost", "none"));
    EXPECT_THAT(expected("localhost."), ElementsAre("localhost", "localhost", "none"));
    EXPECT_THAT(expected("127.0.0.1"), ElementsAre("none", "none", "127.0.0.1"));
    EXPECT_THAT(expected("fe80::1%eth0"), ElementsAre("none", "none", "FE80:0:0:0:0:0:0:1"));
    EXPECT_THAT(expected("127.0.0.1."), ElementsAre("none", "none", "127.0.0.1"));
    EXPECT_THAT(expected("."), ElementsAre("none", ".", "none"));
}

}  // namespace
}  // namespace orvx::registry
