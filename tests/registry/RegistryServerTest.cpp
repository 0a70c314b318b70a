// Tests the registry's answers to complete requests over a real socket.
// The registry runs on its own thread, the test on the main one; they share the socket only.
// There is no lock.

#include <gmock/gmock.h>

#include <boost/beast/http/status.hpp>
#include <future>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "RunningRegistry.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using ::testing::MatchesRegex;

class TheRegistry : public ::testing::Test {
  protected:
    RawConnection::Response ask(const std::string& method, const std::string& target,
                                const std::string& body = {}) {
        return connection_.ask(makeRequest(method, target, body));
    }

    static RegistryOptions smallBodies() {
        RegistryOptions options;
        options.maxBody = 100;
        return options;
    }

    RunningRegistry registry_;
    RawConnection connection_ = registry_.connect();
};

TEST_F(TheRegistry, RegistersAPathAndReturnsItsLocation) {
    const auto response = ask("PUT", "/lamp", R"({"name":"lamp"})");
    EXPECT_EQ(response.result(), http::status::created);
    EXPECT_EQ(response[http::field::content_type], "application/json");
    const std::string location(response[http::field::location]);
    EXPECT_THAT(location, MatchesRegex("/[0-9a-f-]{36}"));
    EXPECT_EQ(json::parse(response.body()), json({{"uuid", location.substr(1)},
                                                  {"path", "/lamp"},
                                                  {"service", {{"name", "lamp"}}},
                                                  {"checks", 0}}));
}

TEST(TheRegistryWithoutEtcd, IsReadyAtOnce) {
    std::promise<bool> ready;
    const RunningRegistry registry({}, [&ready](bool isCurrent) { ready.set_value(isCurrent); });
    EXPECT_TRUE(ready.get_future().get());
}

TEST_F(TheRegistry, MakesOneEntryOfAPathThatIsPutTwiceOverTwoConnections) {
    const auto first = ask("PUT", "/lamp", R"({"port":1})");
    const auto second = registry_.connect().ask(makeRequest("PUT", "/lamp", R"({"port":2})"));
    EXPECT_EQ(second.result(), http::status::ok);
    EXPECT_EQ(second[http::field::location], first[http::field::location]);
    const json entries = json::parse(ask("GET", "/").body()).at("entries");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].at("service").at("port"), 2);
}

TEST_F(TheRegistry, FindsAnEntryUntilItIsDeleted) {
    const std::string location(ask("PUT", "/lamp", "{}")[http::field::location]);
    EXPECT_EQ(ask("HEAD", location).result(), http::status::ok);
    EXPECT_EQ(json::parse(ask("GET", location).body()).at("path"), "/lamp");
    EXPECT_EQ(ask("DELETE", location).result(), http::status::ok);
    EXPECT_EQ(ask("HEAD", location).result(), http::status::not_found);
    EXPECT_EQ(ask("GET", location).result(), http::status::not_found);
    EXPECT_EQ(ask("DELETE", location).result(), http::status::not_found);
}

TEST_F(TheRegistry, ListsItsEntriesInTheOrderOfTheirCreation) {
    for (const char* path : {"/c", "/a", "/b", "/a"}) {
        ask("PUT", path, "{}");
    }
    json paths = json::array();
    const json list = json::parse(ask("GET", "/").body());
    for (const json& entry : list.at("entries")) {
        paths.push_back(entry.at("path"));
    }
    EXPECT_EQ(paths, json({"/c", "/a", "/b"}));
    EXPECT_EQ(ask("HEAD", "/").result(), http::status::ok);
}

TEST_F(TheRegistry, KeepsTheConnectionAfterABodyItRefuses) {
    for (const std::string& body : {std::string("no JSON"), std::string("[]"),
                                    std::string("{\"a\":\"\xff\"}"), std::string(200'000, '[')}) {
        const auto response = ask("PUT", "/a", body);
        EXPECT_EQ(response.result(), http::status::bad_request);
        EXPECT_TRUE(response.keep_alive());
        EXPECT_TRUE(json::parse(response.body()).contains("error"));
    }
    EXPECT_EQ(ask("PUT", "/a").result(), http::status::bad_request);
    EXPECT_EQ(ask("PUT", "/a", "{}").result(), http::status::created);
}

TEST_F(TheRegistry, AllowsFourMethods) {
    for (const char* method : {"POST", "PATCH", "OPTIONS", "INVENTED"}) {
        const auto response = ask(method, "/a", "{}");
        EXPECT_EQ(response.result(), http::status::method_not_allowed);
        EXPECT_EQ(response[http::field::allow], "GET, HEAD, PUT, DELETE");
    }
}

TEST_F(TheRegistry, TakesABodyInChunks) {
    const auto response = connection_.ask(
        "PUT /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
        "5\r\n{\"a\":\r\n2\r\n1}\r\n0\r\n\r\n");
    EXPECT_EQ(response.result(), http::status::created);
    EXPECT_EQ(json::parse(response.body()).at("service"), json({{"a", 1}}));
}

TEST_F(TheRegistry, AnswersABodyOverTheLimitAlthoughTheClientStillSends) {
    const std::string padding(8'000'000, ' ');
    const auto response = ask("PUT", "/a", "{" + padding + "}");
    EXPECT_EQ(response.result(), http::status::payload_too_large);
    EXPECT_FALSE(response.keep_alive());
    EXPECT_TRUE(json::parse(response.body()).contains("error"));
    EXPECT_TRUE(connection_.isClosedByPeer());
}

TEST_F(TheRegistry, TakesABodyUpToTheLimitAndNoByteMore) {
    RunningRegistry registry(smallBodies());
    const std::string body = "{" + std::string(98, ' ') + "}";
    EXPECT_EQ(registry.connect().ask(makeRequest("PUT", "/a", body)).result(),
              http::status::created);
    EXPECT_EQ(registry.connect().ask(makeRequest("PUT", "/a", body + " ")).result(),
              http::status::payload_too_large);
}

TEST_F(TheRegistry, LimitsABodyInChunksAsWell) {
    RunningRegistry registry(smallBodies());
    const auto response = registry.connect().ask(
        "PUT /a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n65\r\n" +
        std::string(0x65, ' ') + "\r\n0\r\n\r\n");
    EXPECT_EQ(response.result(), http::status::payload_too_large);
}

TEST_F(TheRegistry, RefusesAHeaderThatIsTooLong) {
    const auto response = connection_.ask(
        "GET / HTTP/1.1\r\nHost: x\r\nPadding: " + std::string(100'000, 'x') + "\r\n\r\n");
    EXPECT_EQ(response.result(), http::status::request_header_fields_too_large);
    EXPECT_TRUE(json::parse(response.body()).contains("error"));
    EXPECT_TRUE(connection_.isClosedByPeer());
}

TEST_F(TheRegistry, RefusesAMalformedRequest) {
    for (const char* bytes :
         {"garbage\r\n\r\n", "GET / HTTP/9.9\r\n\r\n", "\x16\x03\x01",
          "PUT / HTTP/1.1\r\nContent-Length: x\r\n\r\n", "GET / HTTP/1.1\r\nno colon\r\n\r\n"}) {
        RawConnection connection = registry_.connect();
        const auto response = connection.ask(bytes);
        EXPECT_EQ(response.result(), http::status::bad_request) << bytes;
        EXPECT_TRUE(json::parse(response.body()).contains("error"));
        EXPECT_TRUE(connection.isClosedByPeer());
    }
}

TEST_F(TheRegistry, SendsContinueToAClientThatWaitsWithItsBody) {
    connection_.send(
        "PUT /a HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\nExpect: 100-Continue\r\n\r\n");
    EXPECT_EQ(connection_.receive(true).result(), http::status::continue_);
    EXPECT_EQ(connection_.ask("{}").result(), http::status::created);
    EXPECT_EQ(ask("HEAD", "/").result(), http::status::ok);
}

TEST_F(TheRegistry, RefusesATooLargeBodyBeforeItIsSent) {
    const auto response = connection_.ask(
        "PUT /a HTTP/1.1\r\nHost: x\r\nContent-Length: 99999999\r\nExpect: 100-continue\r\n\r\n");
    EXPECT_EQ(response.result(), http::status::payload_too_large);
}

TEST_F(TheRegistry, DoesNotSendContinueToAnOldClient) {
    const auto response =
        connection_.ask("PUT /a HTTP/1.0\r\nContent-Length: 2\r\nExpect: 100-continue\r\n\r\n{}");
    EXPECT_EQ(response.result(), http::status::created);
    EXPECT_TRUE(connection_.isClosedByPeer());
}

TEST(TheRegistryServer, ReturnsItsUrlAndPort) {
    RegistryOptions options;
    options.port = 0;
    const RegistryServer server(options);
    EXPECT_NE(server.port(), 0);
    EXPECT_EQ(server.url(), "http://127.0.0.1:" + std::to_string(server.port()));
}

TEST(TheRegistryServer, ThrowsWhenItsPortIsTaken) {
    const RunningRegistry registry;
    RegistryOptions options;
    options.port = registry.port();
    EXPECT_THROW(RegistryServer{options}, std::runtime_error);
}

TEST(TheRegistryServer, ReturnsAtOnceWhenStoppedBeforeItRuns) {
    RegistryOptions options;
    options.port = 0;
    RegistryServer server(options);
    server.stop();
    server.run();
    EXPECT_THROW(RawConnection{server.port()}, std::runtime_error);
}

}  // namespace
}  // namespace orvx::registry
