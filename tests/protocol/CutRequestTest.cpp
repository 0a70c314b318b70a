// Connections that the registry ends while it receives a request, after each of the request's
// bytes. The last one ends after the whole request, before any answer.
//
// Threads: the test's, the client's and the server's.

#include "RequestKind.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::AnyOf;
using ::testing::Values;

struct Disconnect {
    std::string name;
    Script& (Script::*step)();
};

void PrintTo(const Disconnect& disconnect, std::ostream* stream) {
    *stream << disconnect.name;
}

class ARequestOnItsWay : public KindTest, public ::testing::WithParamInterface<Disconnect> {
  protected:
    static auto isBroken() {
        return AnyOf(refused("CONNECT_FAILED"), refused("SEND_FAILED"), refused("RECEIVE_FAILED"));
    }
    /// The next connection ends this many bytes after the steps of `begin`.
    void endNextAfter(std::size_t bytes, Script begin = {}) {
        begin.readBytes(bytes);
        server.nextConnection((begin.*GetParam().step)());
    }
    std::size_t lastSize() const { return server.requests().back().raw.size(); }
};

INSTANTIATE_TEST_SUITE_P(EachByte, ARequestOnItsWay,
                         Values(Disconnect{"Closed", &Script::close},
                                Disconnect{"Reset", &Script::reset}),
                         [](const auto& test) { return test.param.name; });

TEST_P(ARequestOnItsWay, ForARegistrationFailsOnce) {
    server.nextRequest(last(201, {{"Location", "/uuid"}}));
    start();
    registered("lamp");
    const std::size_t size = lastSize();
    for (std::size_t bytes = 0; bytes <= size; ++bytes) {
        SCOPED_TRACE(bytes);
        endNextAfter(bytes);
        registerService("lamp");
        EXPECT_THAT(outcomes->next(), isBroken());
    }
    expectItWorks();
    EXPECT_EQ(server.counters().requests, 2U);
    EXPECT_EQ(server.counters().connections, size + 3);
}

TEST_P(ARequestOnItsWay, ForAWithdrawalFailsOnce) {
    server.nextRequest(last(201, {{"Location", "/lamp"}}));
    server.nextRequest(last(201, {{"Location", "/sofa"}}));
    server.nextRequest(last(200));
    start();
    const Handle lamp = registered("lamp");
    const Handle sofa = registered("sofa");
    EXPECT_EQ(outcomeOfWithdrawal(sofa), kWithdrawn);
    const std::size_t size = lastSize();
    for (std::size_t bytes = 0; bytes <= size; ++bytes) {
        SCOPED_TRACE(bytes);
        endNextAfter(bytes);
        EXPECT_THAT(outcomeOfWithdrawal(lamp), isBroken());
    }
    EXPECT_EQ(outcomeOfWithdrawal(lamp), kWithdrawn);
    EXPECT_EQ(server.counters().requests, 4U);
    EXPECT_EQ(server.counters().connections, size + 5);
}

TEST_P(ARequestOnItsWay, ForACheckFailsAndIsFollowedByTheNext) {
    checkAtOnce();
    answer({last(201, {{"Location", "/lamp"}}), Script().waitForRelease("measured").send(last(200)),
            response(404), created("/again"), Script().silence()});
    start();
    registered("lamp");
    ASSERT_TRUE(server.waitForRequests(2));
    const std::size_t size = lastSize();
    for (std::size_t bytes = 0; bytes <= size; ++bytes) {
        endNextAfter(bytes);
    }
    server.release("measured");
    ASSERT_TRUE(server.waitForRequests(5));
    EXPECT_THAT(requestLines(), ::testing::ElementsAre("PUT /lamp", "HEAD /lamp", "HEAD /lamp",
                                                       "PUT /lamp", "HEAD /again"));
    EXPECT_EQ(server.counters().connections, size + 4);
    expectNotifications({"lamp is there", "lamp is gone", "lamp is there"});
}

TEST_P(ARequestOnItsWay, OverAKeptConnectionIsSentAgainOverANewOne) {
    server.onRequest([](const Request&) { return last(201, {{"Location", "/uuid"}}); });
    start();
    registered("lamp");
    const std::size_t size = lastSize();
    for (std::size_t bytes = 0; bytes <= size; ++bytes) {
        SCOPED_TRACE(bytes);
        endNextAfter(bytes, Script().readRequest().send(created("/kept")));
        registered("lamp");
        registered("lamp");
    }
    EXPECT_EQ(server.counters().requests, 1 + 2 * (size + 1));
    EXPECT_EQ(server.counters().connections, 1 + 2 * (size + 1));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
