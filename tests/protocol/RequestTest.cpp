// The requests byte by byte, for any description.
//
// Threads: the test's, the client's and the server's.

#include "ProtocolTest.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::Each;
using ::testing::UnorderedElementsAre;
using namespace std::string_literals;

/// The request consists of its parts only: there is nothing before, between or after them.
void expectWellFormed(const Request& request) {
    std::string bytes = request.method + ' ' + request.target + " HTTP/1.1\r\n";
    for (const std::string& line : request.headerLines) {
        bytes += line + "\r\n";
    }
    EXPECT_EQ(request.raw, bytes + "\r\n" + request.body);
    EXPECT_TRUE(std::all_of(request.target.begin(), request.target.end(), [](char c) {
        return c > ' ' && c < '\x7F';
    })) << request.target;
}

class ARequest : public ProtocolTest {
  protected:
    /// The PUT of a service, which the registry accepts.
    Request put(const Service& service) {
        client().registerServiceAtRegistry(registry(), service, record());
        EXPECT_EQ(outcomes->next(), kRegistered);
        return server.requests().back();
    }
    std::string host() const { return "Host: 127.0.0.1:" + std::to_string(server.port()); }
};

TEST_F(ARequest, OfEachKindIsExactlyThis) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    server.nextRequest(created("/entries/uuid"));
    server.nextRequest(Script().waitForRelease("withdrawn").send(response(200)));
    start();
    const Handle handle = registered("lamp");
    ASSERT_TRUE(server.waitForRequests(2));
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    server.release("withdrawn");
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3U);
    std::for_each(requests.begin(), requests.end(), expectWellFormed);

    const std::string body =
        R"({"description":"lamp","name":"lamp","privileges":[],"serviceCategories":[],)"
        R"("uri":"/lamp","versions":[]})";
    const std::string agent = "User-Agent: OrvxServiceRegistryClient";
    EXPECT_EQ(requests[0].method + ' ' + requests[0].target, "PUT /lamp");
    EXPECT_THAT(requests[0].headerLines,
                UnorderedElementsAre(host(), agent, "Content-Type: application/json",
                                     "Accept: application/json",
                                     "Content-Length: " + std::to_string(body.size())));
    EXPECT_EQ(requests[0].body, body);

    EXPECT_EQ(requests[1].method + ' ' + requests[1].target, "HEAD /uuid");
    EXPECT_THAT(requests[1].headerLines, UnorderedElementsAre(host(), agent));
    EXPECT_EQ(requests[1].body, "");

    EXPECT_EQ(requests[2].method + ' ' + requests[2].target, "DELETE /uuid");
    EXPECT_THAT(requests[2].headerLines,
                UnorderedElementsAre(host(), agent, "Content-Type: application/json"));
    EXPECT_EQ(requests[2].body, "");
}

TEST_F(ARequest, BringsTheConfiguredHeadersAndName) {
    http.headers = {{"Authorization", "Bearer token"}, {"X-Empty", ""}};
    http.userAgent = "agent/1";
    start();
    const Request request = put(service("lamp"));
    expectWellFormed(request);
    EXPECT_EQ(request.header("Authorization"), "Bearer token");
    EXPECT_EQ(request.header("X-Empty"), "");
    EXPECT_EQ(request.header("User-Agent"), "agent/1");
}

TEST_F(ARequest, BringsNothingBackThatTheRegistryWouldHaveKept) {
    start();
    server.nextRequest(response(201, {{"Location", "/a"},
                                      {"Set-Cookie", "session=1; Path=/"},
                                      {"ETag", "\"1\""},
                                      {"WWW-Authenticate", "Basic realm=\"r\""}}));
    const std::size_t headers = put(service("lamp")).headerLines.size();
    EXPECT_EQ(put(service("lamp")).headerLines.size(), headers);
}

TEST_F(ARequest, NeverWaitsForPermissionToSendItsBody) {
    start();
    const auto big = service("big");
    big->setDescription(std::string(3 << 19, 'x'));
    EXPECT_EQ(put(big).header("Expect"), std::nullopt);
}

TEST_F(ARequest, KeepsToItsLineWithAnyPath) {
    start();
    const std::vector<std::pair<std::string, std::string>> targets{
        {"/plain", "/plain"},
        {"plain", "/plain"},
        {"/a b", "/a%20b"},
        {"/a%20b%zz%", "/a%20b%zz%"},
        {"/a?b=c&d", "/a?b=c&d"},
        {"/a#b", "/a%23b"},
        {"#", "/%23"},
        {"/../../etc/passwd", "/../../etc/passwd"},
        {"/./a/../b/.", "/./a/../b/."},
        {"..", "/.."},
        {"//a//b", "//a//b"},
        {"///", "///"},
        {"\\a", "/%5Ca"},
        {"*", "/*"},
        {"@evil.unknown.test/x", "/@evil.unknown.test/x"},
        {":81/x", "/:81/x"},
        {"http://evil.unknown.test/x", "/http://evil.unknown.test/x"},
        {"//evil.unknown.test/x", "//evil.unknown.test/x"},
        {"/a HTTP/1.1\r\nX-Injected: yes\r\n\r\n",
         "/a%20HTTP/1.1%0D%0AX-Injected:%20yes%0D%0A%0D%0A"},
        {"/a\nb\rc\td", "/a%0Ab%0Dc%09d"},
        {"/a\0b"s, "/a%00b"},
        {"/\x01\x1b[2J\x7F", "/%01%1B%5B2J%7F"},
        {"/\xC3\xA9", "/%C3%A9"},
        {"/\xF0\x9F\x92\xA1", "/%F0%9F%92%A1"},
        {"/\"<>^`{|}", "/%22%3C%3E%5E%60%7B%7C%7D"},
        {"/{a,b}[1-3]", "/%7Ba,b%7D%5B1-3%5D"},
        {"/" + std::string(20000, 'x'), "/" + std::string(20000, 'x')}};
    for (const auto& [uri, target] : targets) {
        const Request request = put(service("lamp", uri));
        EXPECT_EQ(request.target, target);
        EXPECT_EQ(request.header("Host"), "127.0.0.1:" + std::to_string(server.port()));
        EXPECT_EQ(request.headerLines.size(), 5U);
        expectWellFormed(request);
        EXPECT_EQ(nlohmann::json::parse(request.body).at("uri"), uri);
    }
    EXPECT_EQ(server.counters().requests, targets.size());
    EXPECT_EQ(server.counters().connections, 1U);
}

TEST_F(ARequest, BringsEveryNameAsItIs) {
    start();
    for (const std::string& name :
         {"a/b"s, ".."s, "."s, " "s, "a b"s, "50%"s, "what?"s, "#1"s, "\r\nX: y\r\n\r\n"s, "\0"s,
          "a\0b"s, "\xC3\xA9\xF0\x9F\x92\xA1"s, "\"quoted\" \\ {json}"s, "@evil"s, "\x1b[2J"s,
          "\x7F\xC2\x80\xE2\x80\xA8"s}) {
        const Request request = put(service(name));
        expectWellFormed(request);
        const auto json = nlohmann::json::parse(request.body);
        EXPECT_EQ(json.at("name"), name);
        EXPECT_EQ(json.at("uri"), '/' + name);
        EXPECT_EQ(json.at("description"), name);
    }
}

TEST_F(ARequest, IsNotMadeOfTextThatIsNotUnicode) {
    start();
    for (const char* text : {"\xFF", "a\xC3", "\xED\xA0\x80", "\xF5\x80\x80\x80", "\xC0\xAF"}) {
        registerService(text);
        EXPECT_EQ(outcomes->next(), "ERROR/OTHER");
        const auto lamp = service("lamp");
        lamp->setServiceCategories({"fine", text});
        client().registerServiceAtRegistry(registry(), lamp, record());
        EXPECT_EQ(outcomes->next(), "ERROR/OTHER");
    }
    EXPECT_THAT(log->takeLines(),
                Each(testing::error("could not create content to send to registry")));
    EXPECT_EQ(server.counters().requests, 0U);
    expectItWorks();
}

TEST_F(ARequest, MayBeBig) {
    const std::string description(10 << 20, 'x');
    start();
    const auto big = service("big");
    big->setDescription(description);
    const Request request = put(big);
    EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
    EXPECT_TRUE(request.body == "{\"description\":\"" + description +
                                    R"(","name":"big","privileges":[],"serviceCategories":[],)"
                                    R"("uri":"/big","versions":[]})");
    expectItWorks();
}

TEST_F(ARequest, BringsThousandsOfCategories) {
    start();
    std::vector<std::string> categories;
    for (int i = 0; i < 10000; ++i) {
        categories.push_back("category " + std::to_string(i));
    }
    const auto lamp = service("lamp");
    lamp->setServiceCategories(categories);
    EXPECT_EQ(nlohmann::json::parse(put(lamp).body).at("serviceCategories"), categories);
}

TEST_F(ARequest, BringsEveryPort) {
    start();
    for (const long port : {0L, 1L, 65535L, -1L}) {
        const auto lamp = service("lamp");
        lamp->setPort(port);
        EXPECT_EQ(nlohmann::json::parse(put(lamp).body).at("port"), port);
    }
}

TEST_F(ARequest, BringsValuesOfEveryKind) {
    using common::GenericObjectValue;
    start();
    const auto lamp = service("lamp");
    lamp->getGenericObject().setValue(
        "extra", GenericObjectValue::Object{
                     {"list", GenericObjectValue::List{1, 2.5, true, nullptr, "\r\n", "\xC3\xA9"}},
                     {"empty", GenericObjectValue::Object{}}});
    EXPECT_EQ(
        nlohmann::json::parse(put(lamp).body).at("extra"),
        nlohmann::json::parse("{\"list\":[1,2.5,true,null,\"\\r\\n\",\"\\u00e9\"],\"empty\":{}}"));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
