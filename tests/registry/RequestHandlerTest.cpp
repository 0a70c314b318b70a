// Tests the answers to requests, without sockets.
// Everything runs on the test's thread.
// There is no lock.

#include "RequestHandler.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "ProcessorTime.h"
#include "SynchronousAnswer.h"
#include "TokenLine.h"

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

TEST_F(TheRequestHandler, AnswersANewPathWithItsEntryAndLocation) {
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

TEST_F(TheRequestHandler, StoresAnyPathUnchanged) {
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

TEST_F(TheRequestHandler, ReadsABodyInTimeProportionalToItsLength) {
    const auto secondsFor = [this](std::size_t objects) {
        std::string body = R"({"a":[{})";
        for (std::size_t i = 1; i < objects; ++i) {
            body += ",{}";
        }
        double least = 1e9;
        for (int i = 0; i < 3; ++i) {
            least = std::min(least, processorSeconds([&] {
                                 EXPECT_LE(put("/a", body + "]}").result_int(), 201U);
                             }));
        }
        return least;
    };
    EXPECT_LT(secondsFor(40'000) / secondsFor(4'000), 30);  // quadratic: 100
}

TEST_F(TheRequestHandler, CountsNoBracketsInStringsAsNesting) {
    expectRefused(R"({"a\\":)" + nested(64) + "}", "too deeply");
    EXPECT_EQ(put("/a", R"({"a":")" + std::string(100, '[') + R"(\"[","b\\":[]})").result(),
              http::status::created);
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

TEST_F(TheRequestHandler, CountsTheChecksOfAnEntry) {
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

TEST_F(TheRequestHandler, FindsAnEntryOnlyBySlashAndUuid) {
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

/// A backend that keeps the handlers until the test calls them.
class LateBackend final : public EntryBackend {
  public:
    const EntryStore& store() const override { return store_; }
    void put(const std::string&, const json&, const Owner&,
             std::function<void(std::optional<PutResult>)> done) override {
        put_ = std::move(done);
    }
    void find(const std::string&, std::function<void(Presence, const Entry*)> done) override {
        find_ = std::move(done);
    }
    void check(const std::string& uuid) override { checked_ += uuid; }
    void remove(const Entry&, std::function<void(Presence)> done) override {
        remove_ = std::move(done);
    }
    void expire() override {}
    bool isLoaded() const override { return isLoaded_; }
    bool isCurrent() const override { return true; }
    std::string metrics() const override { return {}; }

    EntryStore store_;
    bool isLoaded_ = true;
    std::string checked_;
    std::function<void(std::optional<PutResult>)> put_;
    std::function<void(Presence, const Entry*)> find_;
    std::function<void(Presence)> remove_;
};

class ALateAnswer : public ::testing::Test {
  protected:
    using Presence = EntryBackend::Presence;

    ALateAnswer() {
        entry_.uuid = "u";
        entry_.path = "/lamps/1";
        entry_.service = R"({"a":1})";
    }

    void ask(http::verb method, const std::string& target, const Caller& caller = {}) {
        Request request(method, target, 11);
        request.body() = "{}";
        answer(backend_, request, caller, [this](Answer made) { answer_ = std::move(made); });
    }

    static Caller holderOf(const std::string& rights) {
        Caller caller;
        caller.token = std::make_shared<const Tokens>(tokenLine("x", rights))->find("x-secret");
        return caller;
    }

    LateBackend backend_{};
    Entry entry_{};
    std::optional<Answer> answer_{};
};

TEST_F(ALateAnswer, ComesWhenTheBackendHasAnswered) {
    ask(http::verb::put, "/lamps/1");
    EXPECT_FALSE(answer_);
    backend_.put_(EntryBackend::PutResult{entry_, true, {}});
    EXPECT_EQ(answer_->response.result(), http::status::created);
    EXPECT_EQ(answer_->response[http::field::location], "/u");
    EXPECT_EQ(answer_->change->first, Change::Announced);
}

TEST_F(ALateAnswer, IsThatTheRegistryIsUnavailableWhenTheBackendKnowsNothing) {
    ask(http::verb::put, "/lamps/1");
    backend_.put_(std::nullopt);
    EXPECT_EQ(answer_->response.result(), http::status::service_unavailable);
    EXPECT_FALSE(answer_->change);
    for (const auto method : {http::verb::get, http::verb::head, http::verb::delete_}) {
        ask(method, "/u");
        backend_.find_(Presence::Unknown, nullptr);
        EXPECT_EQ(answer_->response.result(), http::status::service_unavailable);
        EXPECT_EQ(answer_->response[http::field::retry_after], "1");
        EXPECT_EQ(answer_->response.body().empty(), method == http::verb::head);
    }
    ask(http::verb::delete_, "/u");
    backend_.find_(Presence::Present, &entry_);
    backend_.remove_(Presence::Unknown);
    EXPECT_EQ(answer_->response.result(), http::status::service_unavailable);
    backend_.isLoaded_ = false;
    ask(http::verb::get, "/");
    EXPECT_EQ(answer_->response.result(), http::status::service_unavailable);
}

TEST_F(ALateAnswer, ShowsAnEntryThatTheStoreDoesNotHold) {
    ask(http::verb::get, "/u");
    backend_.find_(Presence::Present, &entry_);
    EXPECT_EQ(json::parse(answer_->response.body()).at("path"), "/lamps/1");
    ask(http::verb::head, "/u");
    backend_.find_(Presence::Present, &entry_);
    EXPECT_EQ(answer_->response.result(), http::status::ok);
    EXPECT_EQ(backend_.checked_, "u");
}

TEST_F(ALateAnswer, ObeysTheTokenOnceThePathIsKnown) {
    for (const auto method : {http::verb::head, http::verb::delete_}) {
        ask(method, "/u", holderOf(R"("announce":"/doors")"));
        backend_.find_(Presence::Present, &entry_);
        EXPECT_EQ(answer_->response.result(), http::status::forbidden);
        EXPECT_FALSE(backend_.remove_);
    }
    ask(http::verb::head, "/u", holderOf(R"("announce":"/doors","read":true)"));
    backend_.find_(Presence::Present, &entry_);
    EXPECT_EQ(answer_->response.result(), http::status::ok);
    EXPECT_EQ(backend_.checked_, "");
    ask(http::verb::delete_, "/u", holderOf(R"("announce":"/lamps")"));
    backend_.find_(Presence::Present, &entry_);
    backend_.remove_(Presence::Present);
    EXPECT_EQ(answer_->response.result(), http::status::ok);
    EXPECT_EQ(answer_->change->first, Change::Withdrawn);
}

}  // namespace
}  // namespace orvx::registry
