// Checks and withdrawals: the registry's answers to them, and the times at which they are sent.
//
// Threads: the test's, the client's and the server's.

#include "ProtocolTest.h"

#include <algorithm>
#include <atomic>
#include <set>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;
using Clock = std::chrono::steady_clock;

class AWithdrawal : public ProtocolTest {};

TEST_F(AWithdrawal, SucceedsWithOneAnswerOnly) {
    start();
    const Handle handle = registered("lamp");
    for (const int status : {201, 202, 204, 301, 400, 401, 403, 404, 410, 500, 503, 600, 999}) {
        const std::string code = std::to_string(status);
        server.nextRequest(response(status, {{"Location", "/x"}, {"Retry-After", "3600"}}));
        EXPECT_EQ(outcomeOfWithdrawal(handle), refused(code));
        expectLogged("response to delete request was not ok, status=" + code);
    }
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_EQ(outcomeOfWithdrawal(handle), "OK/NONE");
    auto lines = requestLines();
    lines.erase(lines.begin());
    EXPECT_THAT(lines, Each("DELETE /uuid-lamp"));
    EXPECT_THAT(lines, SizeIs(14));
    expectNotifications({"lamp is there", "lamp is gone"});
    expectItWorks();
}

TEST_F(AWithdrawal, ThatFailsOnTheWayLeavesTheServiceRegistered) {
    http.requestTimeout = kShort;
    start();
    const Handle handle = registered("lamp");
    const std::vector<std::pair<Script, std::string>> answers{
        {Script("HTTP/1.1 200 OK\r\n").close(), "CUT_SHORT"},
        {Script().close(), "RECEIVE_FAILED"},
        {"garbage\r\n\r\n", "MALFORMED"},
        {Script("HTTP/1.1 200 OK\r\n").sendEndlessly("X: y\r\n"), "TOO_LARGE"},
        {Script().silence(), "TIMED_OUT"}};
    for (const auto& [answer, why] : answers) {
        server.nextRequest(answer);
        EXPECT_EQ(outcomeOfWithdrawal(handle), refused(why));
    }
    server.stopListening();
    EXPECT_EQ(outcomeOfWithdrawal(handle), refused("CONNECT_FAILED"));
    server.listenAgain();
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    expectItWorks();
}

TEST_F(AWithdrawal, MakesAConnectionWhenTheRegistryHasClosedTheIdleOne) {
    start();
    server.nextRequest(Script(created("/lamp")).close());
    const Handle handle = registered("lamp");
    EXPECT_TRUE(server.waitFor([](const auto& now) { return now.open == 0; }));
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_THAT(requestLines(), ElementsAre("PUT /lamp", "DELETE /lamp"));
}

TEST_F(AWithdrawal, IsAnsweredOnceToEachCaller) {
    start();
    server.nextRequest(created("/uuid"));
    server.nextRequest(Script().waitForRelease("answer").send(response(200)));
    const Handle handle = registered("lamp");
    handle(record("first"));
    handle(record("second"));
    handle({});
    ASSERT_TRUE(server.waitForRequests(2));
    server.release("answer");
    EXPECT_THAT(outcomes->take(2), ElementsAre("first: " + kWithdrawn, "second: " + kWithdrawn));
    EXPECT_EQ(server.counters().requests, 2U);
}

TEST_F(AWithdrawal, IsRefusedWhileTheRegistryHoldsNoEntryYet) {
    start();
    server.nextRequest(Script().waitForRelease("answer").send(created("/uuid")));
    const Handle handle = registerService("lamp");
    ASSERT_TRUE(server.waitForRequests(1));
    EXPECT_EQ(outcomeOfWithdrawal(handle), "ERROR/SERVICE_NOT_FOUND");
    server.release("answer");
    EXPECT_EQ(outcomes->next(), kRegistered);
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_THAT(requestLines(), ElementsAre("PUT /lamp", "DELETE /uuid"));
}

TEST_F(AWithdrawal, IsRefusedBetweenTheRetries) {
    context->enableRetry(true);
    context->setInitialMaxRetryCount(1);
    context->setRetryInterval(std::chrono::hours(1));
    start();
    server.nextRequest(Script("HTTP/1.1 201 Created\r\n").close());
    const Handle handle = registerService("lamp");
    expectLogged("retry (1.) request: /lamp");
    EXPECT_EQ(outcomeOfWithdrawal(handle), "ERROR/SERVICE_NOT_FOUND");
    EXPECT_EQ(server.counters().requests, 1U);
}

class ACheck : public ProtocolTest {
  protected:
    ACheck() {
        context->enableCheck(true);
        context->setCheckInterval(seconds(0));
    }
    /// Registers "lamp". The registry gives these answers to its checks, then none.
    Handle checkWith(const std::vector<Script>& answers) {
        server.nextRequest(created("/uuid"));
        for (const Script& answer : answers) {
            server.nextRequest(answer);
        }
        server.nextRequest(Script().silence());
        start();
        Handle handle = registered("lamp");
        EXPECT_TRUE(server.waitForRequests(answers.size() + 2));
        return handle;
    }
    /// The number of requests. All except the first must be HEADs.
    std::size_t requestsAllOfThemChecks() const {
        const auto lines = requestLines();
        EXPECT_EQ(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), "HEAD /uuid")),
                  lines.size() - 1);
        return lines.size();
    }
};

TEST_F(ACheck, FollowsAnyAnswerButALoss) {
    std::vector<Script> answers;
    for (const int status : {200, 202, 204, 301, 400, 401, 403, 410, 429, 500, 503, 600, 999}) {
        answers.emplace_back(response(status, {{"Location", "/x"}, {"Retry-After", "3600"}}));
    }
    checkWith(answers);
    EXPECT_EQ(requestsAllOfThemChecks(), answers.size() + 2);
    expectNotifications({"lamp is there"});
    EXPECT_EQ(server.counters().maxOpen, 1U);
}

TEST_F(ACheck, FollowsACheckThatFails) {
    checkWith({Script("HTTP/1.1 404 Not Found\r\n").close(), Script().close(), Script().reset(),
               "garbage\r\n\r\n", Script("HTTP/1.1 404\r\nX: ").close(),
               Script("HTTP/1.1 404 Not Found\r\n").sendEndlessly("X: y\r\n"),
               Script("HTTP/1.1 100 Continue\r\n\r\n").close()});
    expectNotifications({"lamp is there"});
}

TEST_F(ACheck, IgnoresABodyThatMustNotBeThere) {
    const std::string ok = response(200, {}, "a body");
    checkWith({ok, response(200, {{"Content-Length", "9999999999"}}), ok + response(404),
               response(200, {{"Transfer-Encoding", "chunked"}}) + "ZZ\r\n", ok});
    EXPECT_EQ(requestsAllOfThemChecks(), 7U);
    expectNotifications({"lamp is there"});
}

TEST_F(ACheck, ThatFindsALossRegistersTheServiceAgain) {
    const Handle handle = checkWith({response(404), created("/again"), response(200)});
    EXPECT_THAT(requestLines(),
                ElementsAre("PUT /lamp", "HEAD /uuid", "PUT /lamp", "HEAD /again", "HEAD /again"));
    const auto requests = server.requests();
    EXPECT_EQ(requests[0].raw, requests[2].raw);
    expectNotifications({"lamp is there", "lamp is gone", "lamp is there"});
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_EQ(requestLines().back(), "DELETE /again");
}

TEST_F(ACheck, ThatFindsALossIsFollowedByPutsUntilOneSucceeds) {
    checkWith({response(404), response(500), Script().close(), response(201), created("x"),
               response(404), created("/again")});
    EXPECT_THAT(requestLines(),
                ElementsAre("PUT /lamp", "HEAD /uuid", "PUT /lamp", "PUT /lamp", "PUT /lamp",
                            "PUT /lamp", "PUT /lamp", "PUT /lamp", "HEAD /again"));
    expectNotifications({"lamp is there", "lamp is gone", "lamp is there"});
    expectLogged("re-register request: /lamp");
}

TEST_F(ACheck, MakesAWithdrawalImpossibleWhileTheLostServiceIsRegisteredAgain) {
    server.nextRequest(created("/uuid"));
    server.nextRequest(response(404));
    server.nextRequest(Script().waitForRelease("answer").send(created("/again")));
    server.nextRequest(Script().silence());
    start();
    const Handle handle = registered("lamp");
    ASSERT_TRUE(server.waitForRequests(3));
    EXPECT_EQ(outcomeOfWithdrawal(handle), "ERROR/SERVICE_NOT_FOUND");
    server.release("answer");
    ASSERT_TRUE(server.waitForRequests(4));
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
}

TEST_F(ACheck, WhoseAnswerComesAfterTheWithdrawalDoesNotRegisterAgain) {
    server.nextRequest(created("/uuid"));
    server.nextRequest(Script().waitForRelease("answer").send(response(404)));
    start();
    const Handle handle = registered("lamp");
    ASSERT_TRUE(server.waitForRequests(2));
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    server.nextRequest(created("/other"));
    server.nextRequest(Script().silence());
    server.release("answer");
    registered("other");
    ASSERT_TRUE(server.waitForRequests(5));
    EXPECT_THAT(requestLines(), ElementsAre("PUT /lamp", "HEAD /uuid", "DELETE /uuid", "PUT /other",
                                            "HEAD /other"));
    expectNotifications({"lamp is there", "lamp is gone", "other is there"});
}

TEST_F(ACheck, ThatIsNotAnsweredInTimeIsAbandonedPermanently) {
    context->setHeadTimeout(milliseconds(50));
    server.nextRequest(created("/uuid"));
    server.nextRequest(Script().silence());
    start();
    const Handle handle = registered("lamp");
    expectLogged("callback: Head State TIMEOUT");
    EXPECT_TRUE(server.waitForClosed(1)) << "the abandoned request keeps its connection";
    expectLogged("TIMEOUT on head request, ignore response.");
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_THAT(requestLines(), ElementsAre("PUT /lamp", "HEAD /uuid", "DELETE /uuid"));
    expectNotifications({"lamp is there", "lamp is gone"});
}

TEST_F(ACheck, BringsEveryServiceBackToARegistryThatHasForgottenThemAll) {
    constexpr std::size_t kServices = 50;
    context->setCheckInterval(seconds(1));
    const auto known = std::make_shared<std::set<std::string>>();  // used by the server's thread
    const auto hasForgotten = std::make_shared<std::atomic<bool>>(false);
    server.onRequest([known, hasForgotten](const Request& request) -> Script {
        if (hasForgotten->exchange(false)) {
            known->clear();
        }
        if (request.method == "PUT") {
            known->insert("/uuid-" + request.target.substr(1));
            return obey(request);
        }
        return response(known->count(request.target) == 0 ? 404 : 200);
    });
    start();
    for (std::size_t i = 0; i < kServices; ++i) {
        registerService("service-" + std::to_string(i));
    }
    EXPECT_THAT(outcomes->take(kServices), Each(kRegistered));
    hasForgotten->store(true);
    ASSERT_TRUE(server.waitForRequests(3 * kServices));
    const auto lines = requestLines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.rfind("PUT", 0) == 0; }),
              2 * kServices);
    EXPECT_LE(server.counters().maxOpen, 16U);
    EXPECT_THAT(notifications->take(3 * kServices), SizeIs(3 * kServices));
}

TEST_F(ACheck, OfARegistryThatRefusesConnectionsIsRepeatedUntilItIsBack) {
    server.nextRequest(created("/uuid"));
    server.nextRequest(Script().waitForRelease("refused").close());
    server.nextRequest(response(404));
    server.nextRequest(created("/again"));
    server.nextRequest(Script().silence());
    start();
    registered("lamp");
    ASSERT_TRUE(server.waitForRequests(2));
    server.stopListening();
    server.release("refused");
    EXPECT_TRUE(server.waitFor([](const auto& now) { return now.open == 0; }));
    expectNotifications({"lamp is there"});
    server.listenAgain();
    ASSERT_TRUE(server.waitForRequests(5));
    EXPECT_THAT(requestLines(),
                ElementsAre("PUT /lamp", "HEAD /uuid", "HEAD /uuid", "PUT /lamp", "HEAD /again"));
    expectNotifications({"lamp is gone", "lamp is there"});
}

TEST_F(ACheck, WaitsForTheInterval) {
    context->setCheckInterval(seconds(1));
    const auto begin = Clock::now();
    checkWith({response(404), created("/uuid")});
    EXPECT_GE(Clock::now() - begin, seconds(2)) << "one interval before each check";
    EXPECT_THAT(requestLines(), ElementsAre("PUT /lamp", "HEAD /uuid", "PUT /lamp", "HEAD /uuid"));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
