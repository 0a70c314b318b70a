// Intervals and time-outs at the limits of their ranges: each loop is paced, and nothing overflows.
//
// Threads: the test's, the client's and the server's. The number of connections shows that each
// request is sent after the previous one is answered: two requests at a time would need two
// connections.

#include "ProtocolTest.h"

namespace orvx::serviceregistryclient {
namespace {

using Clock = std::chrono::steady_clock;

class TheTime : public ProtocolTest {
  protected:
    /// Waits until this many requests were made, each after the answer to the previous one.
    void expectOneAtATime(std::size_t requests) {
        ASSERT_TRUE(server.waitForRequests(requests));
        EXPECT_EQ(server.counters().maxOpen, 1U);
        EXPECT_EQ(server.counters().connections, 1U);
    }
};

TEST_F(TheTime, BetweenChecksMayBeNoneOrLess) {
    context->enableCheck(true);
    for (const seconds interval : {seconds(0), seconds(-1), seconds::min()}) {
        context->setCheckInterval(interval);
        HostileServer registry;
        registry.onRequest(obey);
        start();
        EXPECT_EQ(outcomeAt(registryAt(registry.port())), kRegistered);
        ASSERT_TRUE(registry.waitForRequests(50));
        EXPECT_EQ(registry.counters().maxOpen, 1U);
        EXPECT_EQ(registry.counters().connections, 1U);
        stop();
    }
}

TEST_F(TheTime, BetweenLossesIsThatOfTheAnswersWithoutAnInterval) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    server.onRequest([](const Request& request) {
        return request.method == "HEAD" ? Script(response(404)) : obey(request);
    });
    start();
    registered("lamp");
    expectOneAtATime(50);
    stop();
    auto lines = requestLines();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i], i % 2 == 0 ? "PUT /lamp" : "HEAD /uuid-lamp");
    }
}

TEST_F(TheTime, BetweenRetriesMayBeNoneOrLess) {
    context->enableRetry(true);
    context->enableRetryOnHttpStatus(true);
    for (const auto limit : {std::uint16_t{0}, std::uint16_t{50}}) {
        for (const milliseconds interval :
             {milliseconds(0), milliseconds(-1), milliseconds::min()}) {
            context->setInitialMaxRetryCount(limit);
            context->setRetryInterval(interval);
            HostileServer registry;
            for (int i = 0; i < 50; ++i) {
                registry.nextRequest(response(503));
            }
            registry.onRequest(obey);
            start();
            EXPECT_EQ(outcomeAt(registryAt(registry.port())), kRegistered);
            EXPECT_EQ(registry.counters().requests, 51U);
            EXPECT_EQ(registry.counters().maxOpen, 1U);
            stop();
        }
    }
}

TEST_F(TheTime, OfARetryGrowsWithEachOneThatIsNotLimited) {
    context->enableRetry(true);
    context->enableRetryOnHttpStatus(true);
    context->setRetryInterval(milliseconds(40));
    for (int i = 0; i < 4; ++i) {
        server.nextRequest(response(503));
    }
    start();
    const auto begin = Clock::now();
    registered("lamp");
    EXPECT_GE(Clock::now() - begin, milliseconds((40 + 80 + 160 + 320) / 2));
    EXPECT_EQ(server.counters().requests, 5U);
}

TEST_F(TheTime, MayBeTheLongestThereIs) {
    context->enableCheck(true);
    context->enableRetry(true);
    context->setCheckInterval(seconds::max());
    context->setHeadTimeout(milliseconds::max());
    context->setRetryInterval(milliseconds::max());
    context->setSyncCallUnregisterTimeout(milliseconds::max());
    http.connectTimeout = milliseconds::max();
    http.requestTimeout = milliseconds::max();
    start();
    const Handle handle = registered("lamp");
    server.nextRequest(Script("HTTP/1.1 201 Created\r\n").close());
    registerService("never");
    expectLogged("retry (1.) request: /never");
    expectItWorks();
    expectItWorks();
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    for (const std::string& line : requestLines()) {
        EXPECT_EQ(line.rfind("HEAD", 0), std::string::npos) << "a check that was not due";
    }
    EXPECT_EQ(server.counters().requests, 5U);
}

TEST_F(TheTime, OfACheckIsOverAtOnceWithoutATimeout) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    for (const milliseconds timeout : {milliseconds(0), milliseconds(-1), milliseconds::min()}) {
        context->setHeadTimeout(timeout);
        HostileServer registry;
        registry.nextRequest(created("/uuid"));
        registry.everyConnection(Script());
        registry.onRequest([](const Request&) { return Script().silence(); });
        start();
        log->takeLines();
        EXPECT_EQ(outcomeAt(registryAt(registry.port())), kRegistered);
        expectLogged("callback: Head State TIMEOUT");
        stop();
        EXPECT_LE(registry.counters().requests, 2U);
    }
}

TEST_F(TheTime, MustMakeSense) {
    for (const milliseconds timeout : {milliseconds(0), milliseconds(-1)}) {
        http.connectTimeout = timeout;
        EXPECT_THROW(start(), std::exception);
        http.connectTimeout = seconds(5);
        http.requestTimeout = timeout;
        EXPECT_THROW(start(), std::exception);
        http.requestTimeout = seconds(30);
    }
    start();
    expectItWorks();
}

}  // namespace
}  // namespace orvx::serviceregistryclient
