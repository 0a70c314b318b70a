// Answers that come in pieces, and answers that end too early: what is not whole is no answer.
//
// Threads: the test's, the client's and the server's.

#include "WireTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::AnyOf;
using ::testing::Each;
using ::testing::EndsWith;

/// A whole answer, with a body.
std::string answerTo(const std::string& location) {
    return response(201, {{"Location", location}}, "{}");
}

Script closed(const std::string& bytes) {
    return Script(bytes).close();
}

Script reset(const std::string& bytes) {
    return Script(bytes).reset();
}

class AnAnswer : public WireTest {
  protected:
    static auto isNoAnswer() {
        return AnyOf(refused("CUT_SHORT"), refused("RECEIVE_FAILED"), refused("MALFORMED"));
    }
    /// `end` ends the connection behind what it is given.
    void expectSuccessOnlyWhenWhole(const std::function<Script(const std::string&)>& end) {
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
};

TEST_F(AnAnswer, ToARegistrationThatIsCutShortIsNoneWhereverItIsCut) {
    expectSuccessOnlyWhenWhole(closed);
}

TEST_F(AnAnswer, ToARegistrationThatIsBrokenOffIsNoneWhereverItBreaks) {
    expectSuccessOnlyWhenWhole(reset);
}

TEST_F(AnAnswer, ThatIsCutBehindItsStatusLineIsCalledCutShort) {
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
        EXPECT_EQ(
            outcomeOf(
                Script(whole.substr(0, size)).pause(milliseconds(1)).send(whole.substr(size))),
            kRegistered);
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

TEST_F(AnAnswer, ToAWithdrawalThatIsNotWholeLeavesTheServiceRegistered) {
    const std::string whole = response(200, {}, "ok");
    start();
    const Handle handle = registered("lamp");
    // Less than a line over a kept connection would be given a second chance: that one comes last.
    for (std::size_t size = whole.size() - 1; size > 0; --size) {
        SCOPED_TRACE(whole.substr(0, size));
        server.nextRequest(size % 2 == 0 ? closed(whole.substr(0, size))
                                         : reset(whole.substr(0, size)));
        EXPECT_THAT(outcomeOfWithdrawal(handle), isNoAnswer());
    }
    expectLogged("response to delete request was not ok, status=0");
    server.nextRequest(closed(whole));
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_EQ(notifications->next(), "lamp is there");
    EXPECT_EQ(notifications->next(), "lamp is gone");
    expectItWorks();
}

TEST_F(AnAnswer, ToACheckThatIsNotWholeIsNeverALoss) {
    const std::string lost = response(404);
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    server.nextRequest(created("/lamp"));
    for (std::size_t size = 1; size < lost.size(); ++size) {
        server.nextRequest(size % 2 == 0 ? closed(lost.substr(0, size))
                                         : reset(lost.substr(0, size)));
    }
    server.nextRequest(lost);
    server.nextRequest(created("/lamp-again"));
    server.nextRequest(Script().silence());
    start();
    registered("lamp");
    expectNotifications({"lamp is there", "lamp is gone", "lamp is there"});
    ASSERT_TRUE(server.waitForRequests(lost.size() + 3));
    auto lines = requestLines();
    EXPECT_EQ(lines.at(0), "PUT /lamp");
    EXPECT_EQ(lines.at(lost.size() + 1), "PUT /lamp");
    EXPECT_EQ(lines.at(lost.size() + 2), "HEAD /lamp-again");
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(lost.size()) + 1, lines.end());
    lines.erase(lines.begin());
    EXPECT_THAT(lines, Each("HEAD /lamp"));
}

TEST_F(AnAnswer, ToACheckMayComeByteByByte) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
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
