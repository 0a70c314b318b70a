// The bytes of a request.

#include "HttpTest.h"

namespace orvx::testing {
namespace {

using ::testing::ElementsAre;

class ARequestOnTheWire : public HttpTest {
  protected:
    ARequestOnTheWire() {
        server_.onRequest([](const Request&) { return response(200); });
    }
    std::string hostLine() const { return "Host: 127.0.0.1:" + std::to_string(server_.port()); }
    std::string targetOf(const std::string& path) {
        put(session(), path);
        return server_.requests().back().target;
    }
};

TEST_F(ARequestOnTheWire, IsAPutWithExactlyTheseHeaderLines) {
    const std::string content = "{}";
    Outcome outcome;
    session()->sendPutRequest("/entries", "application/json", "text/plain", content.data(),
                              content.size(), outcome.handler());
    EXPECT_EQ(outcome.statusCode(), 200);
    const Request request = server_.requests().at(0);
    EXPECT_EQ(request.method + ' ' + request.target + ' ' + request.version,
              "PUT /entries HTTP/1.1");
    EXPECT_THAT(
        request.headerLines,
        ElementsAre(hostLine(), "User-Agent: OrvxServiceRegistryClient",
                    "Content-Type: application/json", "Accept: text/plain", "Content-Length: 2"));
    EXPECT_EQ(request.body, "{}");
}

TEST_F(ARequestOnTheWire, IsAHeadWithExactlyTheseHeaderLines) {
    head(session(), "/entries/1");
    const Request request = server_.requests().at(0);
    EXPECT_EQ(request.method + ' ' + request.target + ' ' + request.version,
              "HEAD /entries/1 HTTP/1.1");
    EXPECT_THAT(request.headerLines,
                ElementsAre(hostLine(), "User-Agent: OrvxServiceRegistryClient"));
}

TEST_F(ARequestOnTheWire, IsADeleteWithExactlyTheseHeaderLines) {
    Outcome outcome;
    session()->sendDeleteRequest("/entries/1", "application/json", outcome.handler());
    EXPECT_EQ(outcome.statusCode(), 200);
    const Request request = server_.requests().at(0);
    EXPECT_EQ(request.method + ' ' + request.target + ' ' + request.version,
              "DELETE /entries/1 HTTP/1.1");
    EXPECT_THAT(request.headerLines,
                ElementsAre(hostLine(), "User-Agent: OrvxServiceRegistryClient",
                            "Content-Type: application/json"));
}

TEST_F(ARequestOnTheWire, KeepsItsMethodAndBodyWhateverTheConnectionCarriedBefore) {
    const SessionPointer connection = session(oneConnection());
    for (int i = 0; i < 2; ++i) {
        put(connection, "/a", "one");
        head(connection, "/b");
        remove(connection, "/c");
        put(connection, "/d");
        remove(connection, "/e");
        head(connection, "/f");
    }
    std::string methods;
    for (const Request& request : server_.requests()) {
        methods += request.method + request.target + request.body + ' ';
        EXPECT_EQ(request.connection, 0U);
    }
    const std::string once = "PUT/aone HEAD/b DELETE/c PUT/d DELETE/e HEAD/f ";
    EXPECT_EQ(methods, once + once);
}

TEST_F(ARequestOnTheWire, CarriesEveryByteOfItsContent) {
    std::string content;
    for (int i = 0; i < 256; ++i) {
        content += static_cast<char>(i);
    }
    put(session(), "/", content);
    EXPECT_EQ(server_.requests().at(0).body, content);
}

TEST_F(ARequestOnTheWire, CarriesALargeContentWithoutAskingFirst) {
    const std::string content(3 * 1024 * 1024, 'x');
    EXPECT_EQ(codeOf(put(session(), "/", content)), 200);
    const Request request = server_.requests().at(0);
    EXPECT_EQ(request.body, content);
    EXPECT_EQ(request.header("Expect"), std::nullopt);
}

TEST_F(ARequestOnTheWire, SaysThatAnEmptyContentIsEmpty) {
    Outcome outcome;
    session()->sendPutRequest("/", "", "", nullptr, 0, outcome.handler());
    EXPECT_EQ(outcome.statusCode(), 200);
    EXPECT_THAT(
        server_.requests().at(0).headerLines,
        ElementsAre(hostLine(), "User-Agent: OrvxServiceRegistryClient", "Content-Length: 0"));
}

TEST_F(ARequestOnTheWire, CarriesTheConfiguredHeadersAndUserAgent) {
    HttpConfig config;
    config.userAgent = "Agent/2";
    config.headers = {
        {"X-First", "1: one; two"}, {"X-Empty", ""}, {"Authorization", "Bearer \xC3\xA4"}};
    head(session(config));
    EXPECT_THAT(server_.requests().at(0).headerLines,
                ElementsAre(hostLine(), "User-Agent: Agent/2", "X-First: 1: one; two",
                            "X-Empty:", "Authorization: Bearer \xC3\xA4"));
}

// Before, there were two.
TEST_F(ARequestOnTheWire, HasTheUserAgentOfTheConfiguredHeadersAlone) {
    HttpConfig config;
    config.headers = {{"user-agent", "Agent/3"}};
    head(session(config));
    EXPECT_THAT(server_.requests().at(0).headerLines,
                ElementsAre(hostLine(), "user-agent: Agent/3"));
}

TEST_F(ARequestOnTheWire, HasNoUserAgentIfNoneIsConfigured) {
    HttpConfig config;
    config.userAgent.clear();
    head(session(config));
    EXPECT_THAT(server_.requests().at(0).headerLines, ElementsAre(hostLine()));
}

TEST_F(ARequestOnTheWire, GivesThePathAsItIsWhereItMayStand) {
    EXPECT_EQ(targetOf("/a/../b//c/./d?x=1&y=a+b/?"), "/a/../b//c/./d?x=1&y=a+b/?");
    EXPECT_EQ(targetOf("/-._~!$&'()*+,;=:@%41%2f%"), "/-._~!$&'()*+,;=:@%41%2f%");
    EXPECT_EQ(targetOf("/?"), "/?");
    EXPECT_EQ(targetOf("//elsewhere/"), "//elsewhere/");
}

TEST_F(ARequestOnTheWire, BeginsThePathWithASlash) {
    EXPECT_EQ(targetOf(""), "/");
    EXPECT_EQ(targetOf("a"), "/a");
    EXPECT_EQ(targetOf("?a"), "/?a");
    EXPECT_EQ(targetOf("http://elsewhere/"), "/http://elsewhere/");
}

TEST_F(ARequestOnTheWire, EncodesBytesThatMayNotStandInAPath) {
    EXPECT_EQ(targetOf("/a b#c\"<>[]\\^`{|}"), "/a%20b%23c%22%3C%3E%5B%5D%5C%5E%60%7B%7C%7D");
    EXPECT_EQ(targetOf("/\xC3\xA4\xFF"), "/%C3%A4%FF");
    EXPECT_EQ(targetOf(std::string("/\0\r\n\t\x7F", 6)), "/%00%0D%0A%09%7F");
}

TEST_F(ARequestOnTheWire, IsRefusedIfItsHeadersWouldHoldAControlCharacter) {
    Outcome put;
    Outcome accept;
    Outcome del;
    const SessionPointer refusing = session();
    refusing->sendPutRequest("/", "a\r\nX: y", "", "", 0, put.handler());
    refusing->sendPutRequest("/", "", std::string("a\0b", 3), "", 0, accept.handler());
    refusing->sendDeleteRequest("/", "a\nb", del.handler());
    EXPECT_EQ(put.status(), CommunicationStatus::InvalidRequest);
    EXPECT_EQ(accept.status(), CommunicationStatus::InvalidRequest);
    EXPECT_EQ(del.status(), CommunicationStatus::InvalidRequest);
    EXPECT_EQ(put.callingThread(), "ORVX_HttpIO");
    EXPECT_EQ(server_.counters().connections, 0U);
}

TEST_F(ARequestOnTheWire, IsRefusedIfItsContentIsMissing) {
    Outcome missing;
    Outcome endless;
    session()->sendPutRequest("/", "", "", nullptr, 1, missing.handler());
    session()->sendPutRequest("/", "", "", "", ~std::uint64_t{0}, endless.handler());
    EXPECT_EQ(missing.status(), CommunicationStatus::InvalidRequest);
    EXPECT_EQ(endless.status(), CommunicationStatus::InvalidRequest);
}

TEST_F(ARequestOnTheWire, ReachesAnIpv6HostWithAndWithoutBrackets) {
    if (!hasIpv6Loopback()) {
        GTEST_SKIP() << "This machine has no ::1.";
    }
    HostileServer server(Loopback::V6);
    server.onRequest([](const Request&) { return response(200); });
    for (const char* const host : {"::1", "[::1]", "0:0:0:0:0:0:0:1"}) {
        EXPECT_EQ(codeOf(head(session(server.port(), {}, host))), 200) << host;
    }
    EXPECT_EQ(server.requests().at(0).header("Host"), "[::1]:" + std::to_string(server.port()));
}

TEST_F(ARequestOnTheWire, IgnoresTheProxyOfTheEnvironment) {
    const RefusedPort proxy;
    const std::string url = "http://127.0.0.1:" + std::to_string(proxy.port());
    for (const char* const name : {"http_proxy", "all_proxy", "ALL_PROXY"}) {
        ::setenv(name, url.c_str(), 1);
    }
    EXPECT_EQ(codeOf(head(session())), 200);
    for (const char* const name : {"http_proxy", "all_proxy", "ALL_PROXY"}) {
        ::unsetenv(name);
    }
}

}  // namespace
}  // namespace orvx::testing
