// Who answers a request: the protocol, the page, or the control of the faults. Without sockets.
// Everything runs on the test's thread.
// There is no lock.

#include "Dispatcher.h"

#include <gmock/gmock.h>

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "Page.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using namespace std::chrono_literals;
using http::verb;
using ::testing::HasSubstr;
using ::testing::Not;

class TheDispatcher : public ::testing::Test {
  protected:
    Reaction react(verb method, const std::string& target, const std::string& body = {},
                   const std::string& accept = {}) {
        Request request(method, target, 11);
        request.body() = body;
        if (!accept.empty()) {
            request.set(http::field::accept, accept);
        }
        return dispatcher_.react(request);
    }

    Response ask(verb method, const std::string& target, const std::string& body = {},
                 const std::string& accept = {}) {
        return react(method, target, body, accept).response.value();
    }

    json pageRows() { return json::parse(ask(verb::get, "/-/entries").body()).at("entries"); }

    EntryStore::Time now_{};
    StoreOptions options_{10s, 3, "", [this] { return now_; }};
    Dispatcher dispatcher_{options_, true};
};

constexpr const char* kBrowser = "text/html,application/xhtml+xml,*/*;q=0.8";

TEST_F(TheDispatcher, GivesThePageToThoseWhoAcceptHtmlAndTheListToAllOthers) {
    const Response page = ask(verb::get, "/", {}, kBrowser);
    EXPECT_EQ(page[http::field::content_type], "text/html; charset=utf-8");
    EXPECT_THAT(page.body(), HasSubstr("<!doctype html>"));
    for (const char* accept : {"", "*/*", "application/json", "text/plain"}) {
        const Response list = ask(verb::get, "/", {}, accept);
        EXPECT_EQ(list[http::field::content_type], "application/json");
        EXPECT_EQ(list.body(), R"({"entries":[]})");
    }
}

TEST_F(TheDispatcher, LetsThePageRunNothingButItsOwnScript) {
    const std::string policy(ask(verb::get, "/", {}, kBrowser)["Content-Security-Policy"]);
    EXPECT_THAT(policy, HasSubstr("default-src 'none'; script-src 'self';"));
    EXPECT_THAT(policy, Not(HasSubstr("unsafe")));
    const std::string page(asset::kHtml);
    EXPECT_FALSE(std::regex_search(page, std::regex("(src|href)=\"(?!/-/page|data:)")));
}

TEST_F(TheDispatcher, ServesWhatThePageNeeds) {
    EXPECT_EQ(ask(verb::get, "/-/page.css")[http::field::content_type], "text/css; charset=utf-8");
    EXPECT_EQ(ask(verb::get, "/-/page.js")[http::field::content_type],
              "text/javascript; charset=utf-8");
    const Response head = ask(verb::head, "/-/page.js");
    EXPECT_EQ(head.result(), http::status::ok);
    EXPECT_TRUE(head.body().empty());
    EXPECT_EQ(ask(verb::get, "/-/other").result(), http::status::not_found);
}

TEST_F(TheDispatcher, ListsForThePageTheNewestEntryFirstWithItsTimes) {
    ask(verb::put, "/a", R"({"name":"<script>","uri":"/a","port":80,"secret":1})");
    const std::string location(ask(verb::put, "/b", "{}")[http::field::location]);
    now_ += 2s;
    ask(verb::head, location);
    now_ += 3s;
    const json rows = pageRows();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0].at("uuid"), location.substr(1));
    EXPECT_EQ(rows[0].at("checked"), 3'000);
    EXPECT_EQ(rows[0].at("expires"), 7'000);
    EXPECT_EQ(rows[0].at("name"), nullptr);
    EXPECT_EQ(rows[1].at("checked"), nullptr);
    EXPECT_EQ(rows[1].at("expires"), 5'000);
    EXPECT_EQ(rows[1].at("name"), "<script>");
    EXPECT_EQ(rows[1].at("port"), 80);
    EXPECT_FALSE(rows[1].contains("secret"));
}

TEST_F(TheDispatcher, TellsThePageWhenAPathWasPutForAnotherAddress) {
    ask(verb::put, "/a", R"({"host":"10.0.0.1","port":80})");
    EXPECT_EQ(pageRows().at(0).count("movedFrom"), 0U);
    ask(verb::put, "/a", R"({"host":"10.0.0.2","port":80})");
    now_ += 2s;
    EXPECT_EQ(pageRows().at(0).at("movedFrom"), "10.0.0.1:80");
    EXPECT_EQ(pageRows().at(0).at("moved"), 2'000);
}

TEST_F(TheDispatcher, ShortensForThePageWhatALongServiceSays) {
    std::string name(299, 'x');
    name += "€" + std::string(10'000, 'x');
    ask(verb::put, "/a", json{{"name", name}, {"uri", {1}}, {"port", "80"}}.dump());
    const json row = pageRows()[0];
    EXPECT_EQ(row.at("name"), std::string(299, 'x') + "…");
    EXPECT_EQ(row.at("uri"), nullptr);
    EXPECT_EQ(row.at("port"), nullptr);
}

TEST_F(TheDispatcher, ShowsThePageThousandsOfEntriesAndNoMore) {
    options_.maxEntries = 6'000;
    Dispatcher dispatcher(options_, false);
    for (int i = 0; i < 5'001; ++i) {
        Request request(verb::put, "/" + std::to_string(i), 11);
        request.body() = "{}";
        dispatcher.react(request);
    }
    const auto reaction = dispatcher.react({verb::get, "/-/entries", 11});
    const json list = json::parse(reaction.response->body());
    EXPECT_EQ(list.at("total"), 5'001);
    EXPECT_EQ(list.at("entries").size(), 5'000U);
    EXPECT_EQ(list.at("entries")[0].at("path"), "/5000");
}

TEST_F(TheDispatcher, ForgetsWhatHasExpiredBeforeItAnswers) {
    const std::string location(ask(verb::put, "/a", "{}")[http::field::location]);
    now_ += 10s;
    EXPECT_EQ(ask(verb::head, location).result(), http::status::not_found);
}

TEST_F(TheDispatcher, AnswersThatTheRegistryIsFull) {
    for (const char* path : {"/a", "/b", "/c"}) {
        EXPECT_EQ(ask(verb::put, path, "{}").result(), http::status::created);
    }
    const Response full = ask(verb::put, "/d", "{}");
    EXPECT_EQ(full.result(), http::status::insufficient_storage);
    EXPECT_EQ(json::parse(full.body()).at("error"), "the registry is full: it holds 3 entries");
    EXPECT_EQ(ask(verb::put, "/a", "{}").result(), http::status::ok);
}

TEST_F(TheDispatcher, TakesShowsAndDropsFaults) {
    const Response set = ask(verb::put, "/-/faults", R"({"fault":"reset","requests":1})");
    EXPECT_EQ(set.result(), http::status::ok);
    EXPECT_EQ(ask(verb::get, "/-/faults").body(), set.body());
    EXPECT_EQ(json::parse(set.body()).at("faults")[0].at("fault"), "reset");
    EXPECT_EQ(json::parse(ask(verb::get, "/-/entries").body()).at("faults"), 1);
    EXPECT_EQ(ask(verb::delete_, "/-/faults").body(), R"({"faults":[]})");
    EXPECT_TRUE(react(verb::put, "/a", "{}").response);
}

TEST_F(TheDispatcher, ChangesNoFaultWhenItIsGivenABadOne) {
    ask(verb::put, "/-/faults", R"({"fault":"reset"})");
    const Response refused = ask(verb::put, "/-/faults", "\n{\"fault\":\"rest\"}");
    EXPECT_EQ(refused.result(), http::status::bad_request);
    EXPECT_THAT(refused.body(), HasSubstr("line 2: "));
    EXPECT_FALSE(react(verb::head, "/").response);
    EXPECT_EQ(ask(verb::post, "/-/faults").result(), http::status::method_not_allowed);
}

TEST_F(TheDispatcher, ForgetsAtOnceWhatItIsToldToForget) {
    ask(verb::put, "/a", "{}");
    ask(verb::put, "/-/faults", R"({"fault":"forget"})");
    EXPECT_EQ(ask(verb::get, "/").body(), R"({"entries":[]})");
}

TEST_F(TheDispatcher, AnswersAFaultLikeAnyRequestAndDoesNotCarryTheRequestOut) {
    ask(verb::put, "/-/faults", R"({"fault":"status","status":503})");
    EXPECT_EQ(ask(verb::put, "/a", "{}").result(), http::status::service_unavailable);
    const Response head = ask(verb::head, "/");
    EXPECT_EQ(head.result(), http::status::service_unavailable);
    EXPECT_TRUE(head.body().empty());
    EXPECT_EQ(ask(verb::get, "/").body(), R"({"entries":[]})");
}

TEST_F(TheDispatcher, CarriesOutARequestWhoseAnswerIsDelayed) {
    ask(verb::put, "/-/faults", R"({"fault":"delay","milliseconds":70})");
    const Reaction reaction = react(verb::put, "/a", "{}");
    EXPECT_EQ(reaction.delay, 70ms);
    EXPECT_EQ(reaction.response->result(), http::status::created);
    EXPECT_EQ(pageRows().size(), 1U);
}

TEST_F(TheDispatcher, TakesTheControlForAPathLikeAnyOtherUnlessItIsEnabled) {
    Dispatcher closed(options_, false);
    Request request(verb::put, "/-/faults", 11);
    request.body() = R"({"fault":"reset"})";
    EXPECT_EQ(closed.react(request).response->result(), http::status::created);
    EXPECT_EQ(closed.react({verb::get, "/-/faults", 11}).response->result(),
              http::status::not_found);
    EXPECT_TRUE(closed.react({verb::head, "/", 11}).response);
}

}  // namespace
}  // namespace orvx::registry
