// Tests which handler answers a request: the protocol, the page, or the control of the faults. No
// sockets are involved. Everything runs on the test's thread.
// There is no lock.

#include "Dispatcher.h"

#include <gmock/gmock.h>

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "Page.h"
#include "SynchronousAnswer.h"

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
        return reactionOf(dispatcher_, request);
    }

    Response ask(verb method, const std::string& target, const std::string& body = {},
                 const std::string& accept = {}) {
        return react(method, target, body, accept).response.value();
    }

    std::size_t countEntries() {
        return json::parse(ask(verb::get, "/").body()).at("entries").size();
    }

    EntryStore::Time now_{};
    StoreOptions options_{10s, 3, "", [this] { return now_; }};
    Dispatcher dispatcher_{options_, {true}};
};

constexpr const char* kBrowser = "text/html,application/xhtml+xml,*/*;q=0.8";

TEST_F(TheDispatcher, ServesThePageToClientsThatAcceptHtmlAndTheListToOthers) {
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

TEST_F(TheDispatcher, ServesTheStyleSheetAndTheScriptOfThePage) {
    EXPECT_EQ(ask(verb::get, "/-/page.css")[http::field::content_type], "text/css; charset=utf-8");
    EXPECT_EQ(ask(verb::get, "/-/page.js")[http::field::content_type],
              "text/javascript; charset=utf-8");
    const Response head = ask(verb::head, "/-/page.js");
    EXPECT_EQ(head.result(), http::status::ok);
    EXPECT_TRUE(head.body().empty());
    EXPECT_EQ(ask(verb::get, "/-/other").result(), http::status::not_found);
}

TEST_F(TheDispatcher, LetsAReaderWatchTheEntries) {
    Reaction reaction = react(verb::get, "/-/watch");
    EXPECT_EQ((*reaction.response)[http::field::content_type], "text/event-stream");
    EXPECT_FALSE(reaction.response->keep_alive());
    ask(verb::put, "/a", "{}");
    EXPECT_THAT(*dispatcher_.news(reaction.watch.value()), HasSubstr("\nevent: put\n"));
    now_ += 10s;
    EXPECT_THAT(*dispatcher_.news(*reaction.watch), HasSubstr("\nevent: removed\n"));
    EXPECT_FALSE(react(verb::head, "/-/watch").watch);
    EXPECT_EQ(react(verb::put, "/-/watch", "{}").response->result(), http::status::created);
}

TEST_F(TheDispatcher, WritesMetricsForPrometheus) {
    ask(verb::put, "/a", R"({"host":"10.0.0.1"})");
    ask(verb::put, "/a", R"({"host":"10.0.0.2"})");
    ask(verb::put, "/b", "{}");
    ask(verb::put, "/c", "no JSON");
    now_ += 10s;
    ask(verb::put, "/-/faults", R"({"fault":"reset","method":"HEAD"})");
    ask(verb::put, "/d", "{}");
    react(verb::head, "/d");
    Request unknown(verb::unknown, "/", 11);
    unknown.method_string("EVIL\"");
    reactionOf(dispatcher_, unknown);
    const Response metrics = ask(verb::get, "/-/metrics");
    EXPECT_EQ(metrics[http::field::content_type], "text/plain; version=0.0.4; charset=utf-8");
    for (const char* line : {"orvx_registry_entries 1\n", "orvx_registry_entries_limit 3\n",
                             "orvx_registry_expirations_total 2\n", "orvx_registry_moves_total 1\n",
                             "orvx_registry_faults 1\n",
                             "orvx_registry_requests_total{method=\"PUT\",code=\"201\"} 3\n",
                             "orvx_registry_requests_total{method=\"PUT\",code=\"200\"} 2\n",
                             "orvx_registry_requests_total{method=\"PUT\",code=\"400\"} 1\n",
                             "orvx_registry_requests_total{method=\"HEAD\",code=\"0\"} 1\n",
                             "orvx_registry_requests_total{method=\"other\",code=\"405\"} 1\n"}) {
        EXPECT_THAT(metrics.body(), HasSubstr(std::string("\n") + line));
    }
}

TEST_F(TheDispatcher, ListsTargetsForPrometheus) {
    EXPECT_EQ(ask(verb::get, "/-/prometheus").body(), "[]");
    ask(verb::put, "/a?\xff",
        R"({"name":"lamp","host":"::1","port":80,"versions":["1","2"],"serviceCategories":[]})");
    ask(verb::put, "/b", R"({"name":"bell","host":"a b","port":80})");
    ask(verb::put, "/c",
        json{{"name", std::string(1'001, 'x')}, {"host", "c"}, {"port", 9}}.dump());
    const Response response = ask(verb::get, "/-/prometheus");
    EXPECT_EQ(response[http::field::content_type], "application/json");
    const json groups = json::parse(response.body());
    ASSERT_EQ(groups.size(), 2U);
    json labels = groups[0].at("labels");
    labels.erase("__meta_orvx_uuid");
    EXPECT_EQ(labels, json({{"__meta_orvx_name", "lamp"},
                            {"__meta_orvx_path", "/a?\xef\xbf\xbd"},
                            {"__meta_orvx_versions", ",1,2,"}}));
    EXPECT_EQ(groups[0].at("targets"), json({"[::1]:80"}));
    EXPECT_FALSE(groups[1].at("labels").contains("__meta_orvx_name"));
    EXPECT_EQ(json::parse(ask(verb::get, "/-/prometheus?name=lamp").body()).size(), 1U);
    EXPECT_TRUE(ask(verb::head, "/-/prometheus").body().empty());
    for (const char* target : {"/-/prometheus?limit=1", "/-/prometheus?x"}) {
        EXPECT_EQ(ask(verb::get, target).result(), http::status::bad_request);
    }
    EXPECT_EQ(ask(verb::get, "/-/prometheusx").result(), http::status::not_found);
}

TEST_F(TheDispatcher, LeavesInvalidAddressesAndLabelsOutOfTheTargets) {
    for (const char* body :
         {R"({"host":"","port":80})", R"({"host":"a/b","port":80})", R"({"host":1,"port":80})",
          R"({"host":"a","port":0})", R"({"host":"a","port":65536})", R"({"host":"a","port":"80"})",
          R"({"host":"a","port":-1})", R"({"host":"a","port":1.5})", R"({"host":"a"})", "{}",
          R"({"host":"a","port":80,"name":{},"versions":{"a":1},"serviceCategories":[1,[]]})"}) {
        ask(verb::put, "/a", body);
        EXPECT_EQ(json::parse(ask(verb::get, "/-/prometheus").body()).size(),
                  std::string(body).find("name") == std::string::npos ? 0U : 1U)
            << body;
    }
}

TEST_F(TheDispatcher, ForgetsDueEntriesWhileAReaderWatches) {
    Reaction reaction = react(verb::get, "/-/watch");
    ask(verb::put, "/a", "{}");
    ask(verb::put, "/-/faults", R"({"fault":"forget","after":2})");
    EXPECT_THAT(*dispatcher_.news(reaction.watch.value()), HasSubstr("{\"faults\":1,"));
    now_ += 2s;
    const std::string news = *dispatcher_.news(*reaction.watch);
    EXPECT_THAT(news, HasSubstr("\nevent: removed\n"));
    EXPECT_THAT(news, HasSubstr("{\"faults\":0,"));
}

TEST_F(TheDispatcher, RemovesExpiredEntriesBeforeItAnswers) {
    const std::string location(ask(verb::put, "/a", "{}")[http::field::location]);
    now_ += 10s;
    EXPECT_EQ(ask(verb::head, location).result(), http::status::not_found);
}

TEST_F(TheDispatcher, RefusesANewEntryWhenTheRegistryIsFull) {
    for (const char* path : {"/a", "/b", "/c"}) {
        EXPECT_EQ(ask(verb::put, path, "{}").result(), http::status::created);
    }
    const Response full = ask(verb::put, "/d", "{}");
    EXPECT_EQ(full.result(), http::status::insufficient_storage);
    EXPECT_EQ(json::parse(full.body()).at("error"), "the registry is full: it holds 3 entries");
    EXPECT_EQ(ask(verb::put, "/a", "{}").result(), http::status::ok);
}

TEST_F(TheDispatcher, SetsShowsAndRemovesFaults) {
    const Response set = ask(verb::put, "/-/faults", R"({"fault":"reset","requests":1})");
    EXPECT_EQ(set.result(), http::status::ok);
    EXPECT_EQ(ask(verb::get, "/-/faults").body(), set.body());
    EXPECT_EQ(json::parse(set.body()).at("faults")[0].at("fault"), "reset");
    EXPECT_EQ(ask(verb::delete_, "/-/faults").body(), R"({"faults":[]})");
    EXPECT_TRUE(react(verb::put, "/a", "{}").response);
}

TEST_F(TheDispatcher, ShowsTheTimesOfFaultsInWholeMilliseconds) {
    ask(verb::put, "/-/faults", R"({"fault":"reset","after":0.3,"seconds":2})");
    now_ += 100us;
    const json fault = json::parse(ask(verb::get, "/-/faults").body()).at("faults")[0];
    EXPECT_EQ(fault.at("after").dump(), "0.3");
    EXPECT_EQ(fault.at("seconds").dump(), "2.0");
}

TEST_F(TheDispatcher, KeepsItsFaultsWhenNewOnesAreInvalid) {
    ask(verb::put, "/-/faults", R"({"fault":"reset"})");
    const Response refused = ask(verb::put, "/-/faults", "\n{\"fault\":\"rest\"}");
    EXPECT_EQ(refused.result(), http::status::bad_request);
    EXPECT_THAT(refused.body(), HasSubstr("line 2: "));
    EXPECT_FALSE(react(verb::head, "/").response);
    EXPECT_EQ(ask(verb::post, "/-/faults").result(), http::status::method_not_allowed);
}

TEST_F(TheDispatcher, ForgetsAnEntryAsSoonAsTheFaultIsSet) {
    ask(verb::put, "/a", "{}");
    ask(verb::put, "/-/faults", R"({"fault":"forget"})");
    EXPECT_EQ(ask(verb::get, "/").body(), R"({"entries":[]})");
}

TEST_F(TheDispatcher, AnswersWithTheStatusOfAFaultAndDoesNotCarryTheRequestOut) {
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
    EXPECT_EQ(countEntries(), 1U);
}

TEST_F(TheDispatcher, TreatsTheControlOfFaultsAsAnOrdinaryPathUnlessItIsEnabled) {
    Dispatcher closed(options_, {});
    Request request(verb::put, "/-/faults", 11);
    request.body() = R"({"fault":"reset"})";
    EXPECT_EQ(reactionOf(closed, request).response->result(), http::status::created);
    EXPECT_EQ(reactionOf(closed, {verb::get, "/-/faults", 11}).response->result(),
              http::status::not_found);
    EXPECT_TRUE(reactionOf(closed, {verb::head, "/", 11}).response);
}

TEST_F(TheDispatcher, ReportsThatItIsLiveAndReady) {
    EXPECT_EQ(ask(verb::get, "/-/health").body(), R"({"live":true})");
    EXPECT_EQ(ask(verb::get, "/-/ready").body(), R"({"ready":true})");
    EXPECT_EQ(ask(verb::head, "/-/ready").result(), http::status::ok);
    EXPECT_EQ(ask(verb::put, "/-/ready", "{}").result(), http::status::created);
}

TEST_F(TheDispatcher, AddsTheDurationOfARequestToALargeSum) {
    dispatcher_.counts().countRequest(verb::put, 201, 10'000'000s);
    dispatcher_.counts().countRequest(verb::put, 201, 1ms);
    const std::string metrics = ask(verb::get, "/-/metrics").body();
    const std::string name = "orvx_registry_request_duration_seconds_sum ";
    const auto begin = metrics.find(name);
    ASSERT_NE(begin, std::string::npos);
    EXPECT_DOUBLE_EQ(std::stod(metrics.substr(begin + name.size())), 10'000'000.001);
    EXPECT_THAT(metrics, HasSubstr("_bucket{le=\"0.002\"} 1\n"));
}

TEST_F(TheDispatcher, MeasuresTheDurationOfRequestsAndCountsWatchers) {
    ask(verb::put, "/a", "{}");
    ask(verb::head, "/a");
    dispatcher_.counts().addWatcher();
    const std::string metrics = ask(verb::get, "/-/metrics").body();
    EXPECT_THAT(metrics,
                HasSubstr("orvx_registry_request_duration_seconds_bucket{le=\"+Inf\"} 2\n"));
    EXPECT_THAT(metrics, HasSubstr("orvx_registry_request_duration_seconds_count 2\n"));
    EXPECT_THAT(metrics, HasSubstr("orvx_registry_watchers 1\n"));
    dispatcher_.counts().removeWatcher();
    EXPECT_THAT(ask(verb::get, "/-/metrics").body(), HasSubstr("orvx_registry_watchers 0\n"));
}

}  // namespace
}  // namespace orvx::registry
