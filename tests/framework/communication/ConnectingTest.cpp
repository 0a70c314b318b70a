// Connecting: names, addresses of both families, the number of attempts at a time, and bytes that a
// peer sends before the first request.

#include "BusyIoThread.h"
#include "HttpTest.h"

#include <net/if.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "DeadResolver.h"
#include "Descriptors.h"
#include "Loopback.h"
#include "Process.h"

namespace orvx::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;
using Clock = std::chrono::steady_clock;

std::atomic<int> askedForZone{0};  // How often the number of a network interface was asked for.

class Connecting : public HttpTest {
  protected:
    Connecting() {
        server_.onRequest([](const Request&) { return response(200); });
    }
    static std::vector<CommunicationStatus> statusesOf(const std::vector<Outcome>& outcomes) {
        std::vector<CommunicationStatus> statuses;
        for (const Outcome& outcome : outcomes) {
            statuses.push_back(outcome.status());
        }
        return statuses;
    }
    static Clock::duration durationOf(const std::function<void()>& what) {
        const auto start = Clock::now();
        what();
        return Clock::now() - start;
    }
    /// The shortest of up to ten durations, because a thread of this test may be late. The first
    /// below 250 ms is enough: after that time the client tries the next address in any case.
    static Clock::duration shortestOf(const std::function<Clock::duration(int)>& attempt) {
        auto shortest = Clock::duration::max();
        for (int i = 0; i < 10 && shortest >= 250ms; ++i) {
            shortest = std::min(shortest, attempt(i));
        }
        return shortest;
    }
    /// Sends a request. Holds the I/O thread from the start of connecting until `meanwhile` has
    /// returned.
    HttpResponse putWhile(const SessionPointer& session, const std::function<void()>& meanwhile) {
        Outcome answered;
        Outcome holding;
        std::promise<void> entered;
        std::promise<void> released;
        {
            const BusyIoThread busy(context_);
            session->sendPutRequestJson("/", "", 0, answered.handler());
            context_.getUnavailableSession()->sendHeadRequest("/", holding.handler([&] {
                entered.set_value();
                released.get_future().wait();
            }));
        }
        entered.get_future().wait();
        meanwhile();
        released.set_value();
        return answered.response();
    }
};

TEST_F(Connecting, CostsOneThreadAndNoDescriptorHoweverManyNamesAreNotAnswered) {
    const DeadResolver resolver;
    HttpConfig config;
    config.connectTimeout = 500ms;
    const SessionPointer other = session();
    put(other);
    const auto threads = threadNames();
    const auto descriptors = openDescriptors();
    std::vector<Outcome> outcomes(150);
    std::vector<SessionPointer> sessions;
    for (const char* const host : {"a.silent.test", "b.silent.test", "c.silent.test"}) {
        sessions.push_back(session(80, config, host));
    }
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        sessions[i % sessions.size()]->sendPutRequestJson("/", "", 0, outcomes[i].handler());
    }
    ASSERT_TRUE(resolver.waitForLookups(1));
    EXPECT_EQ(codeOf(put(other)), 200) << "nothing else is held up";
    EXPECT_THAT(threadNames(), SizeIs(threads.size() + 1));
    EXPECT_THAT(threadNames(), Contains("ORVX_Resolver"));
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_THAT(statusesOf(outcomes), Each(CommunicationStatus::TimedOut));
    EXPECT_THAT(resolver.lookups(), SizeIs(1));
    EXPECT_LT(durationOf([&] { context_.deinit(); }), 1s);
}

// A name with 3,000 addresses that refuse once took the I/O thread 1.4 s.
TEST_F(Connecting, TriesTheFirst64AddressesOfAName) {
    const DeadResolver resolver;
    EXPECT_EQ(put(session(server_.port(), {}, "a.crowd.test")).getCommunicationStatus(),
              CommunicationStatus::ConnectFailed)
        << "the server is at the hundredth";
}

TEST_F(Connecting, AsksOnceForANameHoweverManyRequestsWaitAndForAWhileAfter) {
    const DeadResolver resolver;
    const SessionPointer named = session(server_.port(), {}, "a.both.test");
    std::vector<Outcome> outcomes(50);
    for (Outcome& outcome : outcomes) {
        named->sendPutRequestJson("/", "", 0, outcome.handler());
    }
    EXPECT_THAT(statusesOf(outcomes), Each(CommunicationStatus::Ok));
    server_.nextRequest(Script().send(response(200)).close());
    put(named);
    EXPECT_EQ(codeOf(put(named)), 200);
    EXPECT_THAT(resolver.lookups(), ElementsAre("a.both.test"));
}

TEST_F(Connecting, FailsAllThatWaitForANameThatIsUnknown) {
    const DeadResolver resolver;
    const SessionPointer unknown = session(80, {}, "a.unknown.test");
    std::vector<Outcome> outcomes(20);
    {
        const BusyIoThread busy(context_);
        for (Outcome& outcome : outcomes) {
            unknown->sendPutRequestJson("/", "", 0, outcome.handler());
        }
    }
    EXPECT_THAT(statusesOf(outcomes), Each(CommunicationStatus::ResolveFailed));
    EXPECT_THAT(resolver.lookups(), SizeIs(1));
}

TEST_F(Connecting, TriesTheOtherFamilyWhenOneIsSilentAndItFirstTheNextTime) {
    if (!hasIpv6Loopback()) {
        GTEST_SKIP() << "This machine has no ::1.";
    }
    const BlackHole hole(Loopback::V6, server_.port());
    server_.onRequest([](const Request&) { return Script().send(response(200)).close(); });
    const SessionPointer named = session(server_.port(), {}, "a.both.test");
    const auto first = durationOf([&] { EXPECT_EQ(codeOf(put(named)), 200); });
    EXPECT_GE(first, 250ms);
    EXPECT_LT(first, 3s);
    EXPECT_LT(shortestOf([&](int) {
                  EXPECT_TRUE(server_.waitFor([](const auto& now) { return now.open == 0; }));
                  return durationOf([&] { EXPECT_EQ(codeOf(put(named)), 200); });
              }),
              250ms);
}

TEST_F(Connecting, TriesTheNewerFamilyWhenTheOlderOneIsSilent) {
    if (!hasIpv6Loopback()) {
        GTEST_SKIP() << "This machine has no ::1.";
    }
    struct Both {
        HostileServer newer{Loopback::V6};
        const BlackHole hole{Loopback::V4, newer.port()};
    };
    const auto both = atAFreePort<Both>();
    both->newer.onRequest([](const Request&) { return response(200); });
    const auto port = both->newer.port();
    const auto taken =
        durationOf([&] { EXPECT_EQ(codeOf(put(session(port, {}, "localhost"))), 200); });
    EXPECT_GE(taken, 250ms);
    EXPECT_LT(taken, 3s);
}

// Before, each request ended with the connect time-out, and the second address was never tried.
TEST_F(Connecting, TriesTheNextAddressWithinAShortTimeoutWhenOneIsSilent) {
    const DeadResolver resolver;
    struct Both {
        HostileServer second{Loopback::SecondV4};
        const BlackHole first{Loopback::V4, second.port()};
    };
    const auto both = atAFreePort<Both>();
    both->second.onRequest([](const Request&) { return response(200); });
    HttpConfig config;
    config.connectTimeout = 200ms;
    const SessionPointer named = session(both->second.port(), config, "a.replicas.test");
    const auto isAnswered = [&named] { return codeOf(put(named)) == 200; };
    EXPECT_TRUE(isAnswered() || isAnswered() || isAnswered())
        << "a thread of this test may be late";
}

TEST_F(Connecting, TriesTheNextAddressAtOnceWhenOneIsRefused) {
    EXPECT_LT(shortestOf([&](int attempt) {
                  // No address of this name is preferred yet.
                  const auto name = static_cast<char>('a' + attempt) + std::string(".both.test");
                  const SessionPointer named = session(server_.port(), {}, name);
                  return durationOf([&] { EXPECT_EQ(codeOf(put(named)), 200); });
              }),
              250ms)
        << "nobody listens at ::1";
}

TEST_F(Connecting, LetsTheFamiliesTakeTurns) {
    if (!hasIpv6Loopback()) {
        GTEST_SKIP() << "This machine has no ::1.";
    }
    const DeadResolver resolver;
    struct Both {
        HostileServer newer{Loopback::V6};
        const Socket older = bindLoopback(Loopback::V4, newer.port());
    };
    const auto both = atAFreePort<Both>();
    HostileServer& newer = both->newer;
    newer.onRequest([](const Request&) { return response(200); });
    listenOn(both->older, 1);  // connections are established, and no request is answered
    HttpConfig config;
    config.requestTimeout = 5s;
    EXPECT_EQ(codeOf(put(session(newer.port(), config, "a.several.test"))), 200)
        << "127.0.0.2 is refused, then ::1 is due";
}

TEST_F(Connecting, AsksOnceForANameThatIsNotAnsweredHoweverOftenItIsWaitedFor) {
    DeadResolver resolver;
    HttpConfig config;
    config.connectTimeout = 100ms;
    const SessionPointer silent = session(80, config, "a.silent.test");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(put(silent).getCommunicationStatus(), CommunicationStatus::TimedOut);
    }
    resolver.release();
    put(session(80, {}, "b.unknown.test"));  // its look-up comes after all others
    EXPECT_THAT(resolver.lookups(), ElementsAre("a.silent.test", "b.unknown.test"));
}

// The interface may appear later, or again with another number.
TEST_F(Connecting, AsksAgainForTheZoneOfAnAddressAfterAFailure) {
    askedForZone = 0;
    const SessionPointer local = session(80, {}, "fe80::1%orvx-none");
    for (int asked = 1; asked <= 2; ++asked) {
        EXPECT_EQ(put(local).getCommunicationStatus(), CommunicationStatus::ConnectFailed);
        EXPECT_EQ(askedForZone, asked);
    }
}

// Before, each endpoint of the host added a look-up, and there was no bound.
TEST_F(Connecting, AsksOnceForANameThatSeveralEndpointsShare) {
    DeadResolver resolver;
    HttpConfig config;
    config.connectTimeout = 100ms;
    for (const std::uint32_t port : {80U, 81U, 82U}) {
        EXPECT_EQ(put(session(port, config, "a.silent.test")).getCommunicationStatus(),
                  CommunicationStatus::TimedOut);
        EXPECT_EQ(put(session(port, config, "b.silent.test")).getCommunicationStatus(),
                  CommunicationStatus::TimedOut)
            << "waits for the look-up of the other name";
    }
    resolver.release();
    put(session(80, {}, "c.unknown.test"));  // its look-up comes after all others
    EXPECT_THAT(resolver.lookups(),
                ElementsAre("a.silent.test", "b.silent.test", "c.unknown.test"));
}

TEST_F(Connecting, MakesOneConnectionUntilOneStands) {
    HttpConfig config;
    config.tls.enabled = true;
    config.connectTimeout = 300ms;
    server_.everyConnection(Script().readBytes(1).waitForRelease("never"));
    const SessionPointer secure = session(config);
    std::vector<Outcome> outcomes(16);
    {
        const BusyIoThread busy(context_);
        for (Outcome& outcome : outcomes) {
            secure->sendPutRequestJson("/", "", 0, outcome.handler());
        }
    }
    EXPECT_THAT(statusesOf(outcomes), Each(CommunicationStatus::TimedOut));
    EXPECT_EQ(server_.counters().connections, 1U);
}

TEST_F(Connecting, IsDoneAgainWhenThePeerHasSpokenUnaskedSinceItsLastAnswer) {
    server_.onRequest([](const Request&) { return Script().send(response(200)).close(); });
    const SessionPointer again = session();
    for (std::size_t round = 1; round <= 2; ++round) {
        server_.nextConnection(Script().send(response(201)).close());
        const HttpResponse answer = putWhile(again, [this, round] {
            ASSERT_TRUE(server_.waitFor([round](const auto& now) {
                return now.connections == 2 * round - 1 && now.open == 0;
            }));
        });
        EXPECT_EQ(codeOf(answer), 200);
        ASSERT_TRUE(server_.waitFor([](const auto& now) { return now.open == 0; }));
        EXPECT_EQ(server_.counters().connections, 2 * round);
        EXPECT_EQ(server_.counters().requests, round);
    }
}

TEST_F(Connecting, PrefersAnotherAddressWhenOneEndsTheConnectionUnused) {
    HostileServer second(Loopback::SecondV4, server_.port());
    second.onRequest([](const Request&) { return response(200); });
    server_.nextRequest(Script().send(response(200)).close());
    const SessionPointer named = session(server_.port(), {}, "a.replicas.test");
    EXPECT_EQ(codeOf(put(named)), 200) << "the addresses are known";
    ASSERT_TRUE(server_.waitFor([](const auto& now) { return now.open == 0; }));
    server_.everyConnection(Script().close());
    const HttpResponse unused = putWhile(named, [this] {
        ASSERT_TRUE(
            server_.waitFor([](const auto& now) { return now.connections == 2 && now.open == 0; }));
    });
    EXPECT_EQ(unused.getCommunicationStatus(), CommunicationStatus::ReceiveFailed);
    EXPECT_EQ(codeOf(put(named)), 200);
}

TEST_F(Connecting, IsGivenUpWhenThePeerSpeaksUnaskedEachTime) {
    server_.everyConnection(Script().send("220 mail\r\n"));
    const SessionPointer unasked = session();
    const SessionPointer unavailable = context_.getUnavailableSession();
    // Holds the I/O thread in each round until the server has sent bytes over the established
    // connections. After that it sends bytes over a later connection.
    std::function<void()> holdEachRound = [&] {
        const Socket later = connectLoopback(server_.port());
        EXPECT_TRUE(waitForEvents(later, POLLIN, 10'000));
        unavailable->sendHeadRequest("/", [&](const HttpResponse&) { holdEachRound(); });
    };
    Outcome outcome;
    {
        const BusyIoThread busy(context_);
        unasked->sendPutRequestJson("/", "", 0, outcome.handler());
        unavailable->sendHeadRequest("/", [&](const HttpResponse&) { holdEachRound(); });
    }
    EXPECT_EQ(outcome.status(), CommunicationStatus::Malformed);
    context_.deinit();
    EXPECT_EQ(server_.counters().requests, 0U);
}

TEST_F(Connecting, LeaksNothingInTenThousandConnections) {
    server_.onRequest([](const Request&) { return Script().send(response(200)).close(); });
    context_.deinit();
    const auto descriptors = openDescriptors();
    context_.init();
    const SessionPointer closing = session();
    for (int round = 0; round < 100; ++round) {
        std::vector<Outcome> outcomes(100);
        for (Outcome& outcome : outcomes) {
            closing->sendHeadRequest("/", outcome.handler());
        }
        ASSERT_THAT(statusesOf(outcomes), Each(CommunicationStatus::Ok)) << round;
    }
    ASSERT_TRUE(server_.waitFor([](const auto& now) { return now.open == 0; }));
    EXPECT_GE(server_.counters().connections, 10'000U);
    context_.deinit();
    EXPECT_EQ(openDescriptors(), descriptors);
}

}  // namespace
}  // namespace orvx::testing

// Replaces the C library's function: no name is one of an interface.
extern "C" __attribute__((visibility("default"))) unsigned if_nametoindex(const char*) noexcept {
    ++orvx::testing::askedForZone;
    return 0;
}
