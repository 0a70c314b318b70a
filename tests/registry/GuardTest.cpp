// Tests the rights of tokens: every method and resource with every right, and refusals without the
// body of a request.
// Everything runs on the test's thread, which also sets the clock.
// There is no lock.

#include "Guard.h"

#include <gmock/gmock.h>

#include <boost/beast/http/status.hpp>
#include <boost/beast/http/verb.hpp>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "SynchronousAnswer.h"
#include "TemporaryFolder.h"
#include "TokenLine.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using http::verb;
using nlohmann::json;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class TheGuard : public ::testing::Test {
  protected:
    TheGuard() { setTokens(); }

    void setTokens() {
        dispatcher_.setTokens(std::make_shared<const Tokens>(
            tokenLine("reader", R"("read":true)") +
            tokenLine("lamps", R"("announce":"/lamps","entries":2,"bytes":1000)") +
            tokenLine("doors", R"("announce":"/doors","read":true)") +
            tokenLine("admin", R"("administer":true)")));
    }

    Response ask(verb method, const std::string& target, const std::string& authorization,
                 const std::string& body = {}) {
        Request request(method, target, 11);
        request.body() = body;
        if (!authorization.empty()) {
            request.set(http::field::authorization, authorization);
        }
        return carryOut(request);
    }

    Response carryOut(const Request& request) {
        Caller caller;
        if (auto refusal = dispatcher_.refuse(request, peer_, caller)) {
            return *refusal;
        }
        return reactionOf(dispatcher_, request, caller).response.value();
    }

    unsigned statusOf(verb method, const std::string& target, const std::string& token,
                      const std::string& body = {}) {
        return ask(method, target, token.empty() ? "" : "Bearer " + token + "-secret", body)
            .result_int();
    }

    std::string putAs(const std::string& token, const std::string& path) {
        return std::string(
            ask(verb::put, path, "Bearer " + token + "-secret", "{}")[http::field::location]);
    }

    std::uint64_t checksOf(const std::string& location) {
        return dispatcher_.store().find(location.substr(1))->checks;
    }

    std::string auditText() const {
        std::ifstream file(audit_);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const TemporaryFolder folder_;
    const std::string audit_ = folder_ / "audit";
    EntryStore::Time now_{};
    Peer peer_{boost::asio::ip::make_address("10.0.0.7"), {}};
    Dispatcher dispatcher_{{10s, 100, "", [this] { return now_; }, {}}, {true, 0, audit_}};
};

TEST_F(TheGuard, RequiresATokenForEveryMethodAndTarget) {
    for (const verb method : {verb::get, verb::head, verb::put, verb::delete_, verb::post}) {
        for (const char* target :
             {"/", "/x", "/-/watch", "/-/metrics", "/-/faults", "/-/page.js"}) {
            const Response response = ask(method, target, "");
            EXPECT_EQ(response.result(), http::status::unauthorized);
            EXPECT_THAT(std::string(response[http::field::www_authenticate]),
                        HasSubstr("Bearer realm="));
        }
    }
    EXPECT_TRUE(dispatcher_.store().entries().empty());
}

TEST_F(TheGuard, RefusesAnythingButOneValidToken) {
    for (const char* text :
         {"reader-secret", "Bearer", "Bearer ", "Bearer  ", "Bearer reader-secre",
          "Bearer reader-secrets", "Bearer Reader-secret", "Bearer reader-secret,lamps-secret",
          "Basic reader-secret", "Basic cmVhZGVyLXNlY3JldA==", "Basic ====", "Basic",
          "Basic cmVhZGVyLXNlY3JldDo=", "Digest reader-secret", "Basic \x01\x02\x03\x04"}) {
        EXPECT_EQ(ask(verb::get, "/", text).result(), http::status::unauthorized) << text;
    }
    Request twice(verb::get, "/", 11);
    twice.insert(http::field::authorization, "Bearer reader-secret");
    twice.insert(http::field::authorization, "Bearer reader-secret");
    EXPECT_EQ(carryOut(twice).result(), http::status::unauthorized);
}

TEST_F(TheGuard, AcceptsATokenAsThePasswordOfABrowser) {
    EXPECT_EQ(ask(verb::get, "/", "bEARER   reader-secret").result(), http::status::ok);
    EXPECT_EQ(ask(verb::get, "/", "Basic eDpyZWFkZXItc2VjcmV0").result(), http::status::ok);
}

TEST_F(TheGuard, LetsReadersReadEverythingAndChangeNothing) {
    const std::string location = putAs("lamps", "/lamps/1");
    for (const char* target : {"/", "/-/watch", "/-/metrics", "/-/page.css", "/none"}) {
        EXPECT_NE(statusOf(verb::get, target, "reader"), 403U) << target;
        EXPECT_NE(statusOf(verb::head, target, "reader"), 403U) << target;
    }
    EXPECT_EQ(statusOf(verb::get, location, "reader"), 200U);
    EXPECT_EQ(statusOf(verb::put, "/lamps/1", "reader", "{}"), 403U);
    EXPECT_EQ(statusOf(verb::delete_, location, "reader"), 403U);
    EXPECT_EQ(statusOf(verb::delete_, "/none", "reader"), 403U);
    EXPECT_EQ(statusOf(verb::get, "/-/faults", "reader"), 403U);
    EXPECT_EQ(statusOf(verb::put, "/-/faults", "reader", ""), 403U);
}

TEST_F(TheGuard, DoesNotCountTheHeadOfAReaderAsACheck) {
    const std::string location = putAs("lamps", "/lamps/1");
    EXPECT_EQ(statusOf(verb::head, location, "reader"), 200U);
    EXPECT_EQ(statusOf(verb::head, location, "doors"), 200U);
    EXPECT_EQ(checksOf(location), 0U);
    now_ += 9s;
    EXPECT_EQ(statusOf(verb::head, location, "reader"), 200U);
    now_ += 1s;
    EXPECT_EQ(statusOf(verb::head, location, "reader"), 404U);
}

TEST_F(TheGuard, LetsATokenAnnounceCheckAndWithdrawInItsScope) {
    const std::string location = putAs("lamps", "/lamps/1");
    EXPECT_EQ(statusOf(verb::put, "/lamps/1", "lamps", "{}"), 200U);
    EXPECT_EQ(statusOf(verb::put, "/lamps?x=1", "lamps", "{}"), 201U);
    EXPECT_EQ(statusOf(verb::head, location, "lamps"), 200U);
    EXPECT_EQ(checksOf(location), 1U);
    EXPECT_EQ(statusOf(verb::delete_, location, "lamps"), 200U);
    EXPECT_EQ(statusOf(verb::head, location, "lamps"), 404U);
    EXPECT_EQ(statusOf(verb::delete_, location, "lamps"), 404U);
    for (const char* target : {"/", "/-/watch", "/-/metrics", "/-/page.js", "/none"}) {
        EXPECT_EQ(statusOf(verb::get, target, "lamps"), 403U) << target;
    }
    for (const char* target : {"/", "/-/watch", "/-/metrics", "/-/page.js"}) {
        EXPECT_EQ(statusOf(verb::head, target, "lamps"), 403U) << target;
    }
}

TEST_F(TheGuard, RefusesATokenOutsideItsScope) {
    const std::string door = putAs("doors", "/doors/1");
    for (const char* path : {"/", "/lampshade", "/lamp", "/doors/1", "/LAMPS/1", "/-/x", "/-"}) {
        EXPECT_EQ(statusOf(verb::put, path, "lamps", "{}"), 403U) << path;
    }
    for (const char* path :
         {"/lamps/../doors/1", "/lamps/%2e%2e/doors/1", "//doors/1", "/lamps%2f..%2fdoors",
          "/lamps//../doors", "/lamps/..;/doors/1", "*", "http://registry/lamps/1"}) {
        EXPECT_EQ(statusOf(verb::put, path, "lamps", "{}"), 400U) << path;
    }
    EXPECT_EQ(statusOf(verb::head, door, "lamps"), 403U);
    EXPECT_EQ(statusOf(verb::delete_, door, "lamps"), 403U);
    EXPECT_EQ(checksOf(door), 0U);
    EXPECT_EQ(dispatcher_.store().entries().size(), 1U);
}

TEST_F(TheGuard, RefusesToAnnounceAtReservedPaths) {
    dispatcher_.setTokens(std::make_shared<const Tokens>(tokenLine("root", R"("announce":"/")")));
    for (const char* path :
         {"/-/watch", "/-/faults", "/%2d/watch", "/-", "/-;x", "/-;x/watch", "/-%3bx/watch"}) {
        EXPECT_EQ(statusOf(verb::put, path, "root", "{}"), 403U) << path;
    }
    for (const char* path : {"/-watch", "/a;/-/watch"}) {
        EXPECT_EQ(statusOf(verb::put, path, "root", "{}"), 201U) << path;
    }
}

TEST_F(TheGuard, LetsAdministratorsSetFaultsAndNothingElse) {
    EXPECT_EQ(statusOf(verb::put, "/-/faults", "admin", R"({"fault":"forget"})"), 200U);
    EXPECT_EQ(statusOf(verb::get, "/-/faults", "admin"), 200U);
    EXPECT_EQ(statusOf(verb::get, "/", "admin"), 403U);
    EXPECT_EQ(statusOf(verb::head, "/none", "admin"), 403U);
    EXPECT_EQ(statusOf(verb::put, "/lamps/1", "admin", "{}"), 403U);
    EXPECT_EQ(statusOf(verb::put, "/-/faults", "lamps", ""), 403U);
}

TEST_F(TheGuard, UsesNewTokensForTheNextRequest) {
    const std::string location = putAs("lamps", "/lamps/1");
    dispatcher_.setTokens(
        std::make_shared<const Tokens>(tokenLine("lamps", R"("announce":"/doors")")));
    EXPECT_EQ(statusOf(verb::head, location, "lamps"), 403U);
    EXPECT_EQ(statusOf(verb::get, "/", "reader"), 401U);
}

TEST_F(TheGuard, LimitsTheEntriesAndBytesOfAToken) {
    const std::string first = putAs("lamps", "/lamps/1");
    EXPECT_EQ(statusOf(verb::put, "/lamps/2", "lamps", "{}"), 201U);
    EXPECT_EQ(statusOf(verb::put, "/lamps/3", "lamps", "{}"), 507U);
    EXPECT_EQ(statusOf(verb::put, "/doors/1", "doors", "{}"), 201U);
    const std::string large = R"({"a":")" + std::string(950, 'x') + R"("})";
    EXPECT_EQ(statusOf(verb::put, "/lamps/2", "lamps", large), 200U);
    EXPECT_EQ(statusOf(verb::put, "/lamps/1", "lamps", large), 507U);
    EXPECT_EQ(statusOf(verb::put, "/lamps/2", "lamps", large), 200U);
    EXPECT_EQ(statusOf(verb::delete_, first, "lamps"), 200U);
    EXPECT_EQ(statusOf(verb::put, "/lamps/3", "lamps", "{}"), 201U);
    now_ += 10s;  // all expire
    EXPECT_EQ(statusOf(verb::put, "/lamps/4", "lamps", large), 201U);
}

TEST_F(TheGuard, WritesAnAuditLineForEachChange) {
    const std::string location = putAs("lamps", "/lamps/\"1");
    putAs("lamps", "/lamps/\"1");
    statusOf(verb::put, "/doors", "lamps", "{}");  // refused: nothing has changed
    statusOf(verb::head, location, "lamps");
    statusOf(verb::delete_, location, "lamps");
    putAs("doors", "/doors/1");
    statusOf(verb::put, "/-/faults", "admin", R"({"fault":"forget"})");
    putAs("doors", "/doors/1");
    now_ += 10s;
    statusOf(verb::get, "/", "reader");
    std::vector<std::string> changes;
    std::istringstream lines(auditText());
    for (std::string text; std::getline(lines, text);) {
        const json line = json::parse(text);
        EXPECT_THAT(line.at("time").get<std::string>(),
                    ::testing::MatchesRegex("2[-0-9]+T[0-9:]+Z"));
        EXPECT_EQ(line.at("from"), line.at("who").is_null() ? json() : json("10.0.0.7"));
        changes.push_back(line.at("what").get<std::string>() + ' ' + line.value("path", "-") + ' ' +
                          (line.at("who").is_null() ? "-" : line.at("who").get<std::string>()));
    }
    EXPECT_THAT(changes, ElementsAre("announced /lamps/\"1 lamps", "replaced /lamps/\"1 lamps",
                                     "withdrawn /lamps/\"1 lamps", "announced /doors/1 doors",
                                     "faults set - admin", "forgotten /doors/1 -",
                                     "announced /doors/1 doors", "expired /doors/1 -"));
}

TEST_F(TheGuard, NamesTheSubjectOfTheCertificateWithoutTokens) {
    dispatcher_.setTokens(nullptr);
    peer_.certificate = "CN=lamp\x1b[2J";
    EXPECT_EQ(statusOf(verb::put, "/a", "", "{}"), 201U);
    EXPECT_THAT(auditText(), HasSubstr(R"("who":"CN=lamp\u001b[2J")"));
}

TEST_F(TheGuard, AnswersHealthAndReadinessWithoutAToken) {
    EXPECT_EQ(statusOf(verb::get, "/-/health", ""), 200);
    EXPECT_EQ(statusOf(verb::head, "/-/ready", ""), 200);
    EXPECT_EQ(statusOf(verb::put, "/-/ready", "", "{}"), 401);
    EXPECT_EQ(statusOf(verb::get, "/-/readyness", ""), 401);
}

TEST_F(TheGuard, CountsRefusedRequests) {
    statusOf(verb::get, "/", "");
    statusOf(verb::put, "/doors", "lamps", "{}");
    const std::string metrics = ask(verb::get, "/-/metrics", "Bearer reader-secret").body();
    EXPECT_THAT(metrics, HasSubstr("{method=\"GET\",code=\"401\"} 1\n"));
    EXPECT_THAT(metrics, HasSubstr("{method=\"PUT\",code=\"403\"} 1\n"));
    EXPECT_THAT(metrics, Not(HasSubstr("lamps")));
}

TEST(TheGuardOfARate, RefusesRequestsBeyondTheRateAndSaysHowLongToWait) {
    EntryStore::Time now{};
    Dispatcher dispatcher({0ms, 100, "", [&now] { return now; }, {}}, {false, 1, ""});
    const Peer peer{boost::asio::ip::make_address("10.0.0.7"), {}};
    const Request request(verb::head, "/", 11);
    Caller caller;
    for (int i = 0; i < 10; ++i) {
        EXPECT_FALSE(dispatcher.refuse(request, peer, caller));
    }
    const auto refusal = dispatcher.refuse(request, peer, caller);
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->result(), http::status::too_many_requests);
    EXPECT_EQ((*refusal)[http::field::retry_after], "1");
    EXPECT_TRUE(refusal->body().empty());
    EXPECT_FALSE(dispatcher.admitsConnection(peer.address));
    Request health(verb::get, "/-/health", 11);
    EXPECT_FALSE(dispatcher.refuse(health, peer, caller));
    health.set(http::field::content_length, "1");
    EXPECT_TRUE(dispatcher.refuse(health, peer, caller));
    now += 1s;
    EXPECT_FALSE(dispatcher.refuse(request, peer, caller));
}

}  // namespace
}  // namespace orvx::registry
