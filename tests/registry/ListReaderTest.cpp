// Tests readers of long lists: what they get, the memory for readers that read nothing, and that
// others are served meanwhile.
// The registry runs on its own thread or as a program, the test on the main thread; they share
// sockets only. There is no lock.

#include <gmock/gmock.h>

#include <algorithm>
#include <boost/beast/http/status.hpp>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ProcessorTime.h"
#include "RegistryProcess.h"
#include "RunningRegistry.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;
using Clock = std::chrono::steady_clock;

/// Puts `count` entries of `bytes` bytes each, and returns the location of the last one.
std::string putMany(RawConnection& connection, int count, std::size_t size) {
    const std::string service = R"({"a":")" + std::string(size, 'x') + R"("})";
    std::string location;
    for (int first = 0; first < count; first += 100) {
        std::string requests;
        for (int i = first; i < first + 100; ++i) {
            requests += makeRequest("PUT", '/' + std::to_string(i), service);
        }
        connection.send(requests);
        for (int i = 0; i < 100; ++i) {
            location = std::string(connection.receive()[http::field::location]);
        }
    }
    return location;
}

TEST(AReaderOfALongList, GetsItWhole) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    putMany(connection, 3'000, 100);
    const auto list = connection.ask(makeRequest("GET", "/"));
    EXPECT_EQ(list[http::field::transfer_encoding], "chunked");
    const json entries = json::parse(list.body()).at("entries");
    ASSERT_EQ(entries.size(), 3'000U);
    EXPECT_EQ(entries[2'999].at("path"), "/2999");
    EXPECT_EQ(connection.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

TEST(AReaderOfALongList, GetsItUpToTheEndOfTheConnectionWithAnOldVersionOfHttp) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    putMany(connection, 300, 100);
    connection.send("GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n");
    EXPECT_THAT(connection.readUntil("\r\n\r\n"), Not(HasSubstr("chunked")));
    const std::string list = connection.readUntil("]}");
    EXPECT_TRUE(connection.isClosedByPeer());
    EXPECT_EQ(json::parse(list).at("entries").size(), 300U);
}

TEST(AReaderOfAShortList, GetsItsLength) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    const auto list = connection.ask(makeRequest("GET", "/"));
    EXPECT_EQ(list[http::field::content_length], std::to_string(list.body().size()));
}

TEST(AReaderOfALongList, IsDroppedWhenItReadsNothing) {
    RegistryOptions options;
    options.writeTimeout = 200ms;
    const RunningRegistry registry(options);
    RawConnection connection = registry.connect();
    putMany(connection, 2'000, 1'000);
    RawConnection reader(registry.port(), 4'096);
    reader.send(makeRequest("GET", "/"));
    EXPECT_TRUE(reader.endsWithin(10s));
    EXPECT_THAT(connection.ask(makeRequest("GET", "/-/metrics")).body(),
                HasSubstr("drops_total{reason=\"timeout\"} 1\n"));
}

TEST(AReaderOfALongList, IsCutOffWhenAPartlySentEntryChanges) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    const std::string service = R"({"a":")" + std::string(900'000, 'x') + R"("})";
    connection.ask(makeRequest("PUT", "/a", service));
    RawConnection reader(registry.port(), 4'096);
    reader.send(makeRequest("GET", "/"));
    reader.readUntil("xxx");
    connection.ask(makeRequest("PUT", "/a", "{}"));
    EXPECT_THROW(reader.readUntil("]}"), std::exception);
}

/// The 99th percentile of the processor time, in seconds, that the registry uses during a check. It
/// includes other work that the registry does meanwhile.
double checkOften(const RegistryProcess& registry, RawConnection& connection,
                  const std::string& location, int count) {
    clockid_t clock{};
    ::clock_getcpuclockid(registry.pid(), &clock);
    std::vector<double> times;
    const std::string check = makeRequest("HEAD", location);
    for (int i = 0; i < count; ++i) {
        times.push_back(processorSeconds(
            [&] { EXPECT_EQ(connection.ask(check).result(), http::status::ok); }, clock));
    }
    std::sort(times.begin(), times.end());
    return times[times.size() * 99 / 100];
}

// The test does not measure the kernel's memory, which the socket's buffer limits to 32 KiB.
TEST(AReaderThatReadsNothing, CostsLittleMemoryAndHoldsUpNoCheckHoweverLongTheListIs) {
    RegistryProcess registry({"--port", "0"});
    RawConnection connection(registry.port());
    const std::string location = putMany(connection, 10'000, 1'000);
    checkOften(registry, connection, location, 100);
    const long before = registry.residentKilobytes();
    std::vector<RawConnection> readers;
    for (int i = 0; i < 100; ++i) {
        readers.emplace_back(registry.port(), 4'096);
        readers.back().send(makeRequest("GET", "/") + makeRequest("GET", location));
    }
    const double slowest = checkOften(registry, connection, location, 2'000);
    const long each = (registry.residentKilobytes() - before) / 100;
    RecordProperty("kilobytes", static_cast<int>(each));
    RecordProperty("microseconds", static_cast<int>(slowest * 1e6));
#ifndef ORVX_SANITIZED
    EXPECT_LT(each, 32);
    EXPECT_LT(slowest, 0.005);
#endif
}

// Each answer is short, and is sent as soon as the kernel has accepted the previous one.
TEST(AClientThatReadsNoAnswer, GetsNoMoreThanASmallBufferOfThem) {
    RegistryOptions options;
    options.writeTimeout = 300ms;
    const RunningRegistry registry(options);
    RawConnection connection = registry.connect();
    putMany(connection, 100, 50);
    RawConnection reader(registry.port(), 4'096);
    std::string requests;
    for (int i = 0; i < 2'000; ++i) {
        requests += "GET / HTTP/1.1\r\n\r\n";
    }
    reader.send(requests);
    EXPECT_TRUE(reader.endsWithin(10s));
    const std::string metrics = connection.ask(makeRequest("GET", "/-/metrics")).body();
    const std::string name = R"(requests_total{method="GET",code="200"} )";
    const auto begin = metrics.find(name);
    ASSERT_NE(begin, std::string::npos) << metrics;
    EXPECT_LT(std::stoi(metrics.substr(begin + name.size())), 20);
}

}  // namespace
}  // namespace orvx::registry
