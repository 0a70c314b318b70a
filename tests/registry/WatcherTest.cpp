// Tests readers of the stream over a real socket: their events, the delays, and their memory.
// The registry runs on its own thread or as a program, the test on the main thread; they share
// sockets only. There is no lock.

#include <gmock/gmock.h>

#include <boost/beast/http/status.hpp>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "RegistryProcess.h"
#include "RunningRegistry.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Clock = std::chrono::steady_clock;

constexpr const char* kWatch = "GET /-/watch HTTP/1.1\r\nHost: localhost\r\n\r\n";

/// A connection that has requested the stream, and the text up to the end of the list.
struct Watcher {
    explicit Watcher(std::uint16_t port, const std::string& request = kWatch) : connection(port) {
        connection.send(request);
        list = connection.readUntil("event: listed\n");
        list += connection.readUntil("\n\n");
    }

    RawConnection connection;
    std::string list;
};

std::string idIn(const std::string& events) {
    const auto begin = events.rfind("\nid: ") + 5;
    return events.substr(begin, events.find('\n', begin) - begin);
}

std::string put(RawConnection& connection, const std::string& path,
                const std::string& service = "{}") {
    const auto response = connection.ask(makeRequest("PUT", path, service));
    return std::string(response[http::field::location]);
}

void putMany(RawConnection& connection, int count, std::size_t size) {
    const std::string service = R"({"a":")" + std::string(size, 'x') + R"("})";
    for (int i = 0; i < count; ++i) {
        put(connection, '/' + std::to_string(i), service);
    }
}

TEST(AWatcher, GetsTheListAsServerSentEvents) {
    const RunningRegistry registry;
    RawConnection other = registry.connect();
    put(other, "/lamp", R"({"host":"10.0.0.1"})");
    const Watcher watcher(registry.port());
    EXPECT_THAT(watcher.list, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(watcher.list, HasSubstr("\r\nContent-Type: text/event-stream\r\n"));
    EXPECT_THAT(watcher.list, HasSubstr("\r\nConnection: close\r\n"));
    EXPECT_THAT(watcher.list, Not(HasSubstr("Content-Length")));
    EXPECT_THAT(watcher.list, HasSubstr("\r\n\r\nretry: 1000\n\nevent: state\ndata: "));
    EXPECT_THAT(watcher.list,
                HasSubstr("\n\nevent: list\ndata: {\"entries\":1}\n\nevent: put\nid: "));
    EXPECT_THAT(watcher.list, HasSubstr("\"service\":{\"host\":\"10.0.0.1\"}"));
}

/// Sends requests without a change until a watcher has nothing to send and waits.
void letWatchersRest(RawConnection& connection, std::chrono::milliseconds time = 100ms) {
    for (const auto end = Clock::now() + time; Clock::now() < end;) {
        connection.ask(makeRequest("HEAD", "/"));
    }
}

TEST(AWatcher, GetsPutsAndWithdrawalsAtOnce) {
    const RunningRegistry registry;
    Watcher watcher(registry.port());
    RawConnection other = registry.connect();
    const auto begin = Clock::now();
    for (int i = 0; i < 5; ++i) {
        letWatchersRest(other);
        const std::string uuid = put(other, "/lamp").substr(1);
        watcher.connection.readUntil("\"uuid\":\"" + uuid);
        letWatchersRest(other);
        other.ask(makeRequest("DELETE", '/' + uuid));
        watcher.connection.readUntil("event: removed\n");
        watcher.connection.readUntil(uuid);
    }
    EXPECT_LT(Clock::now() - begin, 6s);  // an idle watcher looks for changes once a second
}

TEST(AWatcher, GetsChecksAndExpiriesWithoutFurtherRequests) {
    RegistryOptions options;
    options.ttl = 2s;
    const RunningRegistry registry(options);
    Watcher watcher(registry.port());
    {
        RawConnection other = registry.connect();
        const std::string location = put(other, "/lamp");
        watcher.connection.readUntil("event: put\n");
        other.ask(makeRequest("HEAD", location));
    }
    EXPECT_THAT(watcher.connection.readUntil(",1,"), HasSubstr("event: checked\n"));
    watcher.connection.readUntil("event: removed\n");
}

// Before, the expiry reached the other watchers only when their own timers expired.
TEST(AWatcher, GetsAnExpiryThatTheTimerOfAnotherWatcherHasFound) {
    RegistryOptions options;
    options.ttl = 2s;
    const RunningRegistry registry(options);
    RawConnection other = registry.connect();
    const auto timeOfRemoval = [](Watcher& watcher) {
        watcher.connection.readUntil("event: removed\n");
        return Clock::now();
    };
    Watcher one(registry.port());
    letWatchersRest(other, 500ms);  // the timers of the watchers then expire half a second apart
    Watcher another(registry.port());
    // The shortest of up to three times: a thread of this test may be late.
    auto shortest = Clock::duration::max();
    for (int i = 0; i < 3 && shortest >= 350ms; ++i) {
        put(other, "/lamp");
        auto removed = std::async(std::launch::async, timeOfRemoval, std::ref(another));
        const auto time = timeOfRemoval(one);
        shortest = std::min(shortest, std::chrono::abs(time - removed.get()));
    }
    EXPECT_LT(shortest, 350ms);
}

TEST(AWatcher, GetsNoChecksUnlessItWantsThem) {
    const RunningRegistry registry;
    RawConnection other = registry.connect();
    const std::string location = put(other, "/lamp");
    Watcher watcher(registry.port(), "GET /-/watch?checks=no HTTP/1.1\r\n\r\n");
    other.ask(makeRequest("HEAD", location));
    put(other, "/doorbell");
    const std::string events = watcher.connection.readUntil("/doorbell");
    EXPECT_THAT(events, Not(HasSubstr("event: checked\n")));
}

TEST(AWatcher, IsRefusedWithAnInvalidQuery) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    for (const char* query : {"checks", "checks=maybe", "check=no", "checks=no&checks=no", "x=%"}) {
        const auto response = connection.ask(makeRequest("GET", std::string("/-/watch?") + query));
        EXPECT_EQ(response.result(), http::status::bad_request) << query;
    }
}

TEST(AWatcher, ResumesWhereItsConnectionWasCut) {
    const RunningRegistry registry;
    RawConnection other = registry.connect();
    put(other, "/lamp");
    std::string id;
    {
        const Watcher watcher(registry.port());
        id = idIn(watcher.list);
    }
    put(other, "/doorbell");
    const Watcher watcher(registry.port(),
                          "GET /-/watch HTTP/1.1\r\nLast-Event-ID: " + id + "\r\n\r\n");
    EXPECT_THAT(watcher.list, HasSubstr("/doorbell"));
    EXPECT_THAT(watcher.list, Not(HasSubstr("/lamp")));
    EXPECT_THAT(watcher.list, Not(HasSubstr("event: list\n")));
}

TEST(AWatcher, GetsOnlyTheHeaderWithHead) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    const auto response = connection.ask(makeRequest("HEAD", "/-/watch"));
    EXPECT_EQ(response[http::field::content_type], "text/event-stream");
    EXPECT_EQ(connection.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

TEST(AWatcher, IsNotAffectedByFaults) {
    RegistryOptions options;
    options.admin = true;
    const RunningRegistry registry(options);
    registry.connect().ask(
        makeRequest("PUT", "/-/faults", R"({"fault":"status","status":503,"method":"GET"})"));
    const Watcher watcher(registry.port());
    EXPECT_THAT(watcher.list, HasSubstr("{\"faults\":1,"));
}

TEST(AWatcher, EndsWithTheRegistry) {
    RunningRegistry registry;
    Watcher idle(registry.port());
    Watcher busy(registry.port());
    RawConnection other = registry.connect();
    put(other, "/lamp");
    registry.stop();
    EXPECT_TRUE(idle.connection.endsWithin(10s));
    EXPECT_TRUE(busy.connection.endsWithin(10s));
}

TEST(AWatcher, IsEndedForOthersWhenThereAreTooManyConnections) {
    RegistryOptions options;
    options.maxConnections = 2;
    const RunningRegistry registry(options);
    Watcher watcher(registry.port());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(registry.connect().ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    }
    Watcher again(registry.port());
    EXPECT_THAT(again.list, HasSubstr("event: listed\n"));
}

TEST(AWatcher, CountsAsAnsweredWithEachEvent) {
    RegistryOptions options;
    options.maxConnections = 3;
    const RunningRegistry registry(options);
    Watcher watcher(registry.port());
    RawConnection idle = registry.connect();
    idle.ask(makeRequest("HEAD", "/"));
    RawConnection other = registry.connect();
    put(other, "/lamp");
    watcher.connection.readUntil("/lamp");
    registry.connect().ask(makeRequest("HEAD", "/"));
    EXPECT_TRUE(idle.endsWithin(10s));
    put(other, "/doorbell");
    watcher.connection.readUntil("/doorbell");
}

TEST(AWatcher, MayCloseItsConnectionAtAnyTime) {
    const RunningRegistry registry;
    RawConnection other = registry.connect();
    putMany(other, 500, 100);
    for (int i = 0; i < 100; ++i) {
        RawConnection connection(registry.port());
        connection.send(kWatch);
        if (i % 2 == 0) {
            connection.readUntil("event: put\n");
        }
        i % 3 == 0 ? connection.reset() : connection.endSending();
        put(other, "/" + std::to_string(i));
    }
    EXPECT_EQ(other.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

TEST(AWatcherThatReadsNothing, IsDropped) {
    RegistryOptions options;
    options.writeTimeout = 200ms;
    const RunningRegistry registry(options);
    RawConnection other = registry.connect();
    putMany(other, 100, 5'000);
    RawConnection watcher(registry.port(), 4'096);
    watcher.send(kWatch);
    EXPECT_TRUE(watcher.endsWithin(10s));
    EXPECT_EQ(other.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

// The test does not measure the kernel's memory, which the socket's buffer limits.
TEST(AWatcherThatReadsNothing, CostsLittleMemoryHoweverMuchHappens) {
    RegistryProcess registry({"--port", "0"});
    RawConnection other(registry.port());
    putMany(other, 2'000, 1'000);
    putMany(other, 2'000, 1'000);
    const long before = registry.residentKilobytes();
    std::vector<RawConnection> watchers;
    for (int i = 0; i < 200; ++i) {
        watchers.emplace_back(registry.port(), 4'096);
        watchers.back().send(kWatch);
    }
    putMany(other, 2'000, 1'000);
    const long each = (registry.residentKilobytes() - before) / 200;
    RecordProperty("kilobytes", static_cast<int>(each));
#ifndef ORVX_SANITIZED
    EXPECT_LT(each, 32);
#endif
    EXPECT_EQ(other.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

}  // namespace
}  // namespace orvx::registry
