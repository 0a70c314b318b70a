// What is answered to a request, without sockets.
// Everything runs on the test's thread.
// There is no lock.

#include "RequestHandler.h"

#include <gmock/gmock.h>

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <nlohmann/json.hpp>
#include <string>

#include "Asking.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using ::testing::HasSubstr;

class TheRequestHandler : public ::testing::Test {
  protected:
    Response ask(http::verb method, const std::string& target, const std::string& body = {}) {
        Request request(method, target, 11);
        request.body() = body;
        return answerOf(store_, request);
    }

    Response put(const std::string& target, const std::string& body) {
        return ask(http::verb::put, target, body);
    }

    std::string putAndLocate(const std::string& target) {
        return std::string(put(target, "{}")[http::field::location]);
    }

    void expectRefused(const std::string& body, const std::string& why) {
        const Response response = put("/a", body);
        EXPECT_EQ(response.result(), http::status::bad_request) << body.substr(0, 80);
        EXPECT_THAT(json::parse(response.body()).at("error").get<std::string>(), HasSubstr(why));
        EXPECT_TRUE(store_.entries().empty());
    }

    EntryStore store_;
};

TEST_F(TheRequestHandler, AnswersANewPathWithItsEntryAndWhereItIs) {
    const Response response = put("/lamp", R"({"name":"lamp","port":80})");
    EXPECT_EQ(response.result(), http::status::created);
    EXPECT_EQ(response[http::field::content_type], "application/json");
    const json entry = json::parse(response.body());
    EXPECT_EQ(entry.at("path"), "/lamp");
    EXPECT_EQ(entry.at("service"), json({{"name", "lamp"}, {"port", 80}}));
    EXPECT_EQ(response[http::field::location], "/" + entry.at("uuid").get<std::string>());
}

TEST_F(TheRequestHandler, ReplacesTheServiceOfAPathThatIsPutAgain) {
    const std::string location = putAndLocate("/lamp");
    const Response response = put("/lamp", R"({"port":81})");
    EXPECT_EQ(response.result(), http::status::ok);
    EXPECT_EQ(response[http::field::location], location);
    const json entry = json::parse(ask(http::verb::get, location).body());
    EXPECT_EQ(entry.at("service"), json({{"port", 81}}));
}

TEST_F(TheRequestHandler, TakesAnyPathAsItIs) {
    const std::string location = putAndLocate("/");
    for (const std::string& path : {location, location + "/", std::string("/a?b=%2F&c"),
                                    std::string("/a?b=/&c"), std::string("//"), std::string("*")}) {
        const Response response = put(path, "{}");
        EXPECT_EQ(response.result(), http::status::created) << path;
        EXPECT_EQ(json::parse(response.body()).at("path"), path);
    }
}

TEST_F(TheRequestHandler, DoesNotReplaceAnEntryWhoseUuidIsPutAsAPath) {
    const std::string location = putAndLocate("/lamp");
    EXPECT_EQ(put(location, R"({"name":"other"})").result(), http::status::created);
    EXPECT_EQ(json::parse(ask(http::verb::get, location).body()).at("path"), "/lamp");
}

TEST_F(TheRequestHandler, ShowsAPathThatIsNoUtf8WithoutFailing) {
    const Response response = put("/\xff", "{}");
    EXPECT_EQ(response.result(), http::status::created);
    EXPECT_EQ(json::parse(response.body()).at("path"), "/\xef\xbf\xbd");
}

TEST_F(TheRequestHandler, KeepsUtf8OfAService) {
    const Response response = put("/a", R"({"description":"Küche – 厨房"})");
    EXPECT_EQ(json::parse(response.body()).at("service").at("description"), "Küche – 厨房");
}

TEST_F(TheRequestHandler, RefusesABodyThatIsNoJson) {
    for (const char* body : {"", "{", "{} x", R"({"a":1e999})", "{'a':1}", R"({"a":NaN})"}) {
        expectRefused(body, "not valid JSON");
    }
}

TEST_F(TheRequestHandler, RefusesBytesAfterANul) {
    expectRefused({"{}\0x", 4}, "not valid JSON");
}

TEST_F(TheRequestHandler, RefusesABodyThatIsNoUtf8) {
    expectRefused("{\"a\":\"\xff\"}", "UTF-8");
    expectRefused("{\"a\":\"\xc0\xaf\"}", "UTF-8");
    expectRefused("{\"\xed\xa0\x80\":1}", "UTF-8");
}

TEST_F(TheRequestHandler, RefusesJsonThatIsNoObject) {
    for (const char* body : {"[]", "[{}]", "null", "1", "\"{}\"", "true"}) {
        expectRefused(body, "not a JSON object");
    }
}

std::string nested(std::size_t depth) {
    std::string text = R"({"a":)";
    text.append(depth - 1, '[').append(depth - 1, ']').append("}");
    return text;
}

TEST_F(TheRequestHandler, RefusesDeepNesting) {
    expectRefused(nested(65), "too deeply");
    expectRefused(nested(100'000), "too deeply");
    expectRefused(std::string(500'000, '['), "too deeply");
    EXPECT_EQ(put("/a", nested(64)).result(), http::status::created);
}

TEST_F(TheRequestHandler, AnswersHeadLikeGetWithoutABody) {
    const std::string location = putAndLocate("/a");
    for (const std::string& target : {location, std::string("/"), std::string("/unknown")}) {
        const Response get = ask(http::verb::get, target);
        const Response head = ask(http::verb::head, target);
        EXPECT_EQ(head.result(), get.result());
        EXPECT_EQ(head[http::field::content_type], get[http::field::content_type]);
        EXPECT_FALSE(get.body().empty());
        EXPECT_TRUE(head.body().empty());
    }
}

TEST_F(TheRequestHandler, ShowsHowOftenAnEntryWasAskedForWithHead) {
    const std::string location = putAndLocate("/a");
    putAndLocate("/b");
    const auto shown = [&](const std::string& target) {
        return json::parse(ask(http::verb::get, target).body());
    };
    EXPECT_EQ(shown(location).at("checks"), 0);
    ask(http::verb::head, location);
    ask(http::verb::head, location);
    ask(http::verb::head, "/");
    EXPECT_EQ(shown(location).at("checks"), 2);
    EXPECT_EQ(shown("/").at("entries")[0].at("checks"), 2);
    EXPECT_EQ(shown("/").at("entries")[1].at("checks"), 0);
    EXPECT_EQ(json::parse(put("/a", "{}").body()).at("checks"), 2);
}

TEST_F(TheRequestHandler, ListsAllEntriesInTheOrderOfTheirCreation) {
    EXPECT_EQ(json::parse(ask(http::verb::get, "/").body()), json::parse(R"({"entries":[]})"));
    const std::string location = putAndLocate("/b");
    putAndLocate("/a");
    putAndLocate("/b");
    const json entries = json::parse(ask(http::verb::get, "/").body()).at("entries");
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0], json::parse(ask(http::verb::get, location).body()));
    EXPECT_EQ(entries[1].at("path"), "/a");
}

TEST_F(TheRequestHandler, DeletesAnEntryOnce) {
    const std::string location = putAndLocate("/a");
    EXPECT_EQ(ask(http::verb::delete_, location).result(), http::status::ok);
    EXPECT_EQ(ask(http::verb::delete_, location).result(), http::status::not_found);
    EXPECT_EQ(ask(http::verb::head, location).result(), http::status::not_found);
    EXPECT_EQ(ask(http::verb::get, location).result(), http::status::not_found);
}

TEST_F(TheRequestHandler, KnowsNoEntryByAnythingButSlashAndUuid) {
    const std::string location = putAndLocate("/a");
    for (const std::string& target : {std::string("/a"), location + "/", location.substr(1),
                                      "x" + location.substr(1), "/" + location, location + "?"}) {
        EXPECT_EQ(ask(http::verb::get, target).result(), http::status::not_found) << target;
        EXPECT_EQ(ask(http::verb::delete_, target).result(), http::status::not_found) << target;
    }
    EXPECT_EQ(ask(http::verb::delete_, "/").result(), http::status::not_found);
}

TEST_F(TheRequestHandler, NamesTheMethodsItKnowsWhenAskedForAnother) {
    for (const auto method : {http::verb::post, http::verb::patch, http::verb::options}) {
        const Response response = ask(method, "/a", "{}");
        EXPECT_EQ(response.result(), http::status::method_not_allowed);
        EXPECT_EQ(response[http::field::allow], "GET, HEAD, PUT, DELETE");
        EXPECT_TRUE(json::parse(response.body()).contains("error"));
    }
}

TEST_F(TheRequestHandler, KeepsTheConnectionAsTheRequestAsks) {
    Request request(http::verb::get, "/", 11);
    EXPECT_TRUE(answerOf(store_, request).keep_alive());
    request.keep_alive(false);
    EXPECT_FALSE(answerOf(store_, request).keep_alive());
    EXPECT_FALSE(answerOf(store_, Request(http::verb::get, "/", 10)).keep_alive());
}

}  // namespace
}  // namespace orvx::registry
