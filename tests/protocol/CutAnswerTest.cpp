// Answers that arrive in pieces, and answers that end too early: a partial answer is not an answer.
//
// Threads: the test's, the client's and the server's.

#include "RequestKind.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::EndsWith;

/// A complete answer with a body.
std::string answerTo(const std::string& location) {
    return response(201, {{"Location", location}}, "{}");
}

Script closed(const std::string& bytes) {
    return Script(bytes).close();
}

Script reset(const std::string& bytes) {
    return Script(bytes).reset();
}

Script split(const std::string& whole, std::size_t size) {
    return Script(whole.substr(0, size)).pause(milliseconds(1)).send(whole.substr(size));
}

using End = std::function<Script(const std::string&)>;

class AnAnswer : public KindTest {
  protected:
    static auto isNoAnswer() {
        return AnyOf(refused("CUT_SHORT"), refused("RECEIVE_FAILED"), refused("MALFORMED"));
    }
    /// `end` ends the connection after the bytes that it gets.
    void expectSuccessOnlyWhenWhole(const End& end) {
        const std::string whole = answerTo("/cut");
        start();
        for (std::size_t size = 1; size < whole.size(); ++size) {
            SCOPED_TRACE(whole.substr(0, size));
            EXPECT_THAT(outcomeOf(end(whole.substr(0, size))), isNoAnswer());
        }
        expectItWorks();
        EXPECT_EQ(outcomeOf(end(whole)), kRegistered);
        expectItWorks();
        EXPECT_EQ(server.counters().requests, whole.size() + 2);
        EXPECT_THAT(notifications->take(3), Each(EndsWith(" is there")));
    }
    /// After each partial answer the service is still registered.
    void expectWithdrawalOnlyWhenWhole(const End& end) {
        const std::string whole = response(200, {}, "ok");
        server.nextRequest(last(201, {{"Location", "/lamp"}}));
        start();
        const Handle handle = registered("lamp");
        for (std::size_t size = 1; size < whole.size(); ++size) {
            SCOPED_TRACE(whole.substr(0, size));
            server.nextRequest(end(whole.substr(0, size)));
            EXPECT_THAT(outcomeOfWithdrawal(handle), isNoAnswer());
        }
        expectLogged("response to delete request was not ok, status=0");
        server.nextRequest(end(whole));
        EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
        EXPECT_EQ(server.counters().requests, whole.size() + 1);
        expectNotifications({"lamp is there", "lamp is gone"});
        expectItWorks();
    }
    /// After each partial answer the next check follows.
    void expectLossOnlyWhenWhole(const End& end) {
        const std::string lost = response(404);
        checkAtOnce();
        server.nextRequest(last(201, {{"Location", "/lamp"}}));
        std::vector<std::string> requests{"PUT /lamp"};
        for (std::size_t size = 1; size <= lost.size(); ++size) {
            server.nextRequest(end(lost.substr(0, size)));
            requests.emplace_back("HEAD /lamp");
        }
        answer({created("/again"), Script().silence()});
        requests.insert(requests.end(), {"PUT /lamp", "HEAD /again"});
        start();
        registered("lamp");
        ASSERT_TRUE(server.waitForRequests(requests.size()));
        EXPECT_EQ(requestLines(), requests);
        expectNotifications({"lamp is there", "lamp is gone", "lamp is there"});
    }
};

TEST_F(AnAnswer, ToARegistrationThatIsCutShortIsNoneWhereverItIsCut) {
    expectSuccessOnlyWhenWhole(closed);
}

TEST_F(AnAnswer, ToARegistrationThatIsBrokenOffIsNoneWhereverItBreaks) {
    expectSuccessOnlyWhenWhole(reset);
}

TEST_F(AnAnswer, ThatIsCutAfterItsStatusLineIsCalledCutShort) {
    start();
    for (const char* bytes :
         {"HTTP/1.1 201 Created\r\n", "HTTP/1.1 201 Created\r\nLocation: /a",
          "HTTP/1.1 201 Created\r\nLocation: /a\r\n", "HTTP/1.1 201 Created\r\nLocation: /a\r\n\r",
          "HTTP/1.1 201 Created\r\nLocation: /a\r\nContent-Length: 2\r\n\r\n",
          "HTTP/1.1 100 Continue\r\n\r\n", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 201 Created\r\n",
          "HTTP/1.1 201 Created\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n"}) {
        SCOPED_TRACE(bytes);
        EXPECT_EQ(outcomeOf(closed(bytes)), refused("CUT_SHORT"));
        EXPECT_EQ(outcomeOf(reset(bytes)), refused("CUT_SHORT"));
        expectItWorks();
    }
}

TEST_F(AnAnswer, MayBeSplitAnywhere) {
    start();
    for (std::size_t size = 1; size < answerTo("/split").size(); ++size) {
        const std::string whole = answerTo("/split-" + std::to_string(size));
        SCOPED_TRACE(whole.substr(0, size));
        EXPECT_EQ(outcomeOf(split(whole, size)), kRegistered);
    }
    EXPECT_EQ(server.counters().connections, 1U);
    expectItWorks();
}

TEST_F(AnAnswer, MayComeByteByByte) {
    start();
    server.nextRequest(Script().drip(created("/drip"), milliseconds(1)));
    const Handle handle = registered("lamp");
    server.nextRequest(Script().drip(response(200, {}, "gone"), milliseconds(1)));
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_EQ(server.counters().connections, 1U);
    expectItWorks();
}

TEST_F(AnAnswer, ToAWithdrawalThatIsCutShortLeavesTheServiceRegistered) {
    expectWithdrawalOnlyWhenWhole(closed);
}

TEST_F(AnAnswer, ToAWithdrawalThatIsBrokenOffLeavesTheServiceRegistered) {
    expectWithdrawalOnlyWhenWhole(reset);
}

TEST_F(AnAnswer, ToAWithdrawalMayBeSplitAnywhere) {
    const std::string whole = response(200, {}, "ok");
    start();
    for (std::size_t size = 1; size < whole.size(); ++size) {
        SCOPED_TRACE(whole.substr(0, size));
        const Handle handle = registered("lamp");
        server.nextRequest(split(whole, size));
        EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    }
    EXPECT_EQ(server.counters().connections, 1U);
}

TEST_F(AnAnswer, ToACheckThatIsCutShortIsNeverALoss) {
    expectLossOnlyWhenWhole(closed);
}

TEST_F(AnAnswer, ToACheckThatIsBrokenOffIsNeverALoss) {
    expectLossOnlyWhenWhole(reset);
}

TEST_F(AnAnswer, ToACheckMayBeSplitAnywhere) {
    const std::string lost = response(404);
    checkAtOnce();
    server.nextRequest(created("/lamp"));
    std::vector<std::string> requests{"PUT /lamp"};
    for (std::size_t size = 1; size < lost.size(); ++size) {
        answer({split(lost, size), created("/lamp")});
        requests.insert(requests.end(), {"HEAD /lamp", "PUT /lamp"});
    }
    server.nextRequest(Script().silence());
    requests.emplace_back("HEAD /lamp");
    start();
    registered("lamp");
    ASSERT_TRUE(server.waitForRequests(requests.size()));
    EXPECT_EQ(requestLines(), requests);
    EXPECT_EQ(server.counters().connections, 1U);
    EXPECT_THAT(notifications->take(requests.size() - 1),
                Contains("lamp is gone").Times(lost.size() - 1));
}

TEST_F(AnAnswer, ToACheckMayComeByteByByte) {
    checkAtOnce();
    server.nextRequest(created("/lamp"));
    server.nextRequest(Script().drip(response(200), milliseconds(1)));
    server.nextRequest(Script().drip(response(404), milliseconds(1)));
    server.nextRequest(created("/lamp"));
    server.nextRequest(Script().silence());
    start();
    registered("lamp");
    expectNotifications({"lamp is there", "lamp is gone", "lamp is there"});
}

}  // namespace
}  // namespace orvx::serviceregistryclient
