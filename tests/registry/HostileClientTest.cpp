// Tests hostile clients: by the bytes that they send or do not send, and by their number. Each is
// refused or dropped, while other clients are served.
// The registry runs on its own thread or as a program, the test on the main thread; they share
// sockets only. There is no lock.

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <boost/beast/http/status.hpp>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "RegistryProcess.h"
#include "RunningRegistry.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

/// Checks that a new connection is served. The registry has ended it when this returns.
void expectServed(std::uint16_t port) {
    RawConnection connection(port);
    EXPECT_EQ(connection.ask("HEAD / HTTP/1.1\r\nConnection: close\r\n\r\n").result(),
              http::status::ok);
    EXPECT_TRUE(connection.isClosedByPeer());
}

/// Sends the piece repeatedly, at most once in `pause`, until the registry ends the connection.
/// Returns false if it has not ended after ten seconds.
bool isDroppedWhileSending(RawConnection& connection, const std::string& piece,
                           std::chrono::milliseconds pause) {
    for (const auto end = Clock::now() + 10s; Clock::now() < end;) {
        if (connection.endsWithin(pause)) {
            return true;
        }
        try {
            connection.send(piece);
        } catch (const std::system_error&) {
            return true;
        }
    }
    return false;
}

TEST(AHostileClient, IsDroppedWhenItsRequestTricklesInWithoutAnEnd) {
    RegistryOptions options;
    options.requestTimeout = 200ms;
    const RunningRegistry registry(options);
    for (const char* start :
         {"", "PUT /", "PUT /a HTTP/1.1\r\nX: ", "PUT /a HTTP/1.1\r\nContent-Length: 99999\r\n\r\n",
          "PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nFFFF\r\n",
          "PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1;",
          "PUT /a HTTP/1.1\r\nContent-Length: 99999\r\nExpect: 100-continue\r\n\r\n"}) {
        RawConnection connection = registry.connect();
        connection.send(start);
        EXPECT_TRUE(isDroppedWhileSending(connection, "x", 10ms)) << start;
        expectServed(registry.port());
    }
}

TEST(AHostileClient, IsAnsweredWhenItCutsItsLastChunk) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    connection.send("PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
    for (const char* part : {"0\r\n", "\r"}) {
        connection.send(part);
        EXPECT_FALSE(connection.endsWithin(20ms)) << "the registry reads each part alone";
    }
    EXPECT_EQ(connection.ask("\n").result(), http::status::bad_request);
    expectServed(registry.port());
}

// The timer of a socket that always has something to read does not end it.
TEST(AHostileClient, IsDroppedWhenItsChunkExtensionsFollowEachOtherWithoutAnEnd) {
    RegistryOptions options;
    options.requestTimeout = 200ms;
    options.maxBody = 1'000'000'000;
    const RunningRegistry registry(options);
    RawConnection connection = registry.connect();
    connection.send("PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
    std::string chunks;
    for (int i = 0; i < 10; ++i) {
        chunks += "1;" + std::string(8'000, 'x') + "\r\n \r\n";
    }
    EXPECT_TRUE(isDroppedWhileSending(connection, chunks, 0ms));
    EXPECT_THAT(registry.connect().ask(makeRequest("GET", "/-/metrics")).body(),
                HasSubstr("drops_total{reason=\"timeout\"} 1\n"));
    expectServed(registry.port());
}

TEST(AHostileClient, IsDroppedWhenItKeepsSendingAfterItWasRefused) {
    RegistryOptions options;
    options.farewellTimeout = 200ms;
    const RunningRegistry registry(options);
    RawConnection connection = registry.connect();
    EXPECT_EQ(connection.ask("garbage\r\n\r\n").result(), http::status::bad_request);
    EXPECT_TRUE(connection.isClosedByPeer());
    // The registry's own end has come; that nothing is taken any more shows when sending fails.
    EXPECT_THROW(
        {
            for (const auto end = Clock::now() + 10s; Clock::now() < end;) {
                connection.send(std::string(1'000, 'x'));
            }
        },
        std::system_error);
    expectServed(registry.port());
}

TEST(AHostileClient, IsDroppedWhenItNeverReadsTheAnswersToRequestsSentTogether) {
    RegistryOptions options;
    options.writeTimeout = 100ms;
    const RunningRegistry registry(options);
    RawConnection connection(registry.port(), 4096);
    connection.send(makeRequest("PUT", "/a", R"({"a":")" + std::string(500'000, 'x') + R"("})"));
    std::string requests;
    for (int i = 0; i < 100; ++i) {
        requests += makeRequest("GET", "/");
    }
    EXPECT_TRUE(isDroppedWhileSending(connection, requests, 10ms));
    expectServed(registry.port());
}

TEST(AHostileClient, ChangesNothingByResettingAnywhereWithinARequest) {
    const RunningRegistry registry;
    const std::string whole = makeRequest("PUT", "/a", R"({"a":1})");
    for (std::size_t size = 0; size < whole.size(); ++size) {
        RawConnection connection = registry.connect();
        connection.send(whole.substr(0, size));
        connection.reset();
    }
    const auto list = registry.connect().ask(makeRequest("GET", "/"));
    EXPECT_EQ(json::parse(list.body()), json::parse(R"({"entries":[]})"));
}

TEST(AHostileClient, MayResetWhileItIsAnswered) {
    const RunningRegistry registry;
    const std::string service = R"({"a":")" + std::string(500'000, 'x') + R"("})";
    registry.connect().ask(makeRequest("PUT", "/a", service));
    for (int i = 0; i < 50; ++i) {
        RawConnection connection = registry.connect();
        connection.send(makeRequest("GET", "/") + makeRequest("GET", "/"));
        connection.reset();
    }
    expectServed(registry.port());
}

TEST(AHostileClient, IsRefusedABodyOfWhateverLengthBeforeItIsSent) {
    const RunningRegistry registry;
    for (const char* length : {"1048577", "99999999999", "18446744073709551615"}) {
        RawConnection connection = registry.connect();
        const auto response = connection.ask(
            "PUT /a HTTP/1.1\r\nContent-Length: " + std::string(length) + "\r\n\r\n");
        EXPECT_EQ(response.result(), http::status::payload_too_large) << length;
        EXPECT_TRUE(connection.isClosedByPeer());
    }
    EXPECT_EQ(registry.connect()
                  .ask("PUT /a HTTP/1.1\r\nContent-Length: 18446744073709551616\r\n\r\n")
                  .result(),
              http::status::bad_request);
}

// A body that is not known to end would be taken for the next request.
TEST(AHostileClient, IsRefusedABodyWhoseEndIsUnknown) {
    const RunningRegistry registry;
    for (const std::string& body :
         {makeRequest("PUT", "/hidden", "{}"), std::string("0\r\n\r\n")}) {
        for (const char* codings : {"chunked, gzip", "gzip", "identity", "xchunked",
                                    "chunked, chunked", "\"chunked\"", ""}) {
            for (const char* line : {"GET /", "DELETE /a", "PUT /a", "POST /a"}) {
                RawConnection connection = registry.connect();
                connection.send(line + std::string(" HTTP/1.1\r\nTransfer-Encoding: ") + codings +
                                "\r\n\r\n" + body);
                EXPECT_EQ(connection.receive().result(), http::status::bad_request)
                    << line << ' ' << codings;
                EXPECT_TRUE(connection.isClosedByPeer()) << line << ' ' << codings;
            }
        }
    }
    EXPECT_EQ(registry.connect().ask(makeRequest("GET", "/")).body(), R"({"entries":[]})");
}

TEST(AHostileClient, IsReadABodyWhoseLastCodingIsChunked) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    for (const char* codings : {"chunked", "Chunked", "gzip, chunked"}) {
        EXPECT_EQ(connection
                          .ask(std::string("PUT /a HTTP/1.1\r\nTransfer-Encoding: ") + codings +
                               "\r\n\r\n2\r\n{}\r\n0\r\n\r\n")
                          .result_int() /
                      100,
                  2U)
            << codings;
    }
}

TEST(AHostileClient, IsRefusedChunksThatAreTooLongTogether) {
    RegistryOptions options;
    options.maxBody = 100;
    const RunningRegistry registry(options);
    for (const char* chunks : {"65\r\n", "64\r\n%\r\n1\r\n", "FFFFFFFFFFFFFFFF\r\n"}) {
        std::string body = chunks;
        if (const auto filler = body.find('%'); filler != std::string::npos) {
            body.replace(filler, 1, std::string(100, ' '));
        }
        RawConnection connection = registry.connect();
        EXPECT_EQ(
            connection.ask("PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + body).result(),
            http::status::payload_too_large)
            << chunks;
        EXPECT_TRUE(connection.isClosedByPeer());
    }
}

long peakKilobytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; status >> word;) {
        if (word == "VmHWM:") {
            status >> word;
            return std::stol(word);
        }
    }
    throw std::runtime_error("no VmHWM");
}

TEST(AHostileClient, CostsLittleMemoryHoweverLongItsBodyIs) {
    RegistryProcess registry({"--port", "0"});
    RawConnection connection(registry.port());
    const long before = peakKilobytes(registry.pid());
    connection.send("PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
    const std::string chunk = "10000\r\n" + std::string(0x10000, ' ') + "\r\n";
    try {
        for (int i = 0; i < 2'000; ++i) {
            connection.send(chunk);
        }
    } catch (const std::system_error&) {
        // It was dropped.
    }
    EXPECT_LT(peakKilobytes(registry.pid()) - before, 64'000);
    expectServed(registry.port());
}

TEST(AHostileClient, IsRefusedAHeaderThatIsLongInWhateverWay) {
    const RunningRegistry registry;
    std::string fields;
    for (int i = 0; i < 20'000; ++i) {
        fields += "A: b\r\n";
    }
    const std::string filler(100'000, 'x');
    for (const std::string& request :
         {"GET / HTTP/1.1\r\n" + fields + "\r\n", "GET /" + filler + " HTTP/1.1\r\n\r\n", filler,
          "GET / HTTP/1.1\r\n" + filler + ": a\r\n\r\n"}) {
        RawConnection connection = registry.connect();
        const auto response = connection.ask(request);
        EXPECT_EQ(response.result_int() / 100, 4U) << request.substr(0, 20);
        EXPECT_TRUE(connection.isClosedByPeer());
    }
}

TEST(AHostileClient, IsRefusedChunksWithAnythingLongAroundThem) {
    const RunningRegistry registry;
    const std::string filler(100'000, 'x');
    for (const std::string& rest :
         {"2;" + filler + "\r\n{}\r\n0\r\n\r\n", "2\r\n{}\r\n0\r\nA: " + filler + "\r\n\r\n",
          "FFFFFFFFFFFFFFFFF\r\n" + filler, "FFFFFFFFFFFFFFFF\r\n" + filler, filler}) {
        RawConnection connection = registry.connect();
        const auto response =
            connection.ask("PUT /a HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + rest);
        EXPECT_EQ(response.result_int() / 100, 4U) << rest.substr(0, 20);
        EXPECT_TRUE(connection.isClosedByPeer());
    }
    expectServed(registry.port());
}

TEST(AHostileClient, IsRefusedJsonThatNestsWithoutEnd) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    std::string objects;
    for (int i = 0; i < 100'000; ++i) {
        objects += R"({"a":)";
    }
    const std::string lists = R"({"a":)" + std::string(100'000, '[');
    for (const std::string& body : {objects, objects + "1" + std::string(100'000, '}'), lists,
                                    lists + std::string(100'000, ']') + "}"}) {
        EXPECT_EQ(connection.ask(makeRequest("PUT", "/a", body)).result(),
                  http::status::bad_request);
    }
    EXPECT_EQ(connection.ask(makeRequest("PUT", "/a", "{}")).result(), http::status::created);
}

TEST(AHostileClient, IsRefusedFaultsThatAreNone) {
    RegistryOptions options;
    options.admin = true;
    const RunningRegistry registry(options);
    RawConnection connection = registry.connect();
    std::string many;
    for (int i = 0; i < 10'000; ++i) {
        many += "{\"fault\":\"reset\"}\n";
    }
    const std::string lists = std::string(200'000, '[') + std::string(200'000, ']');
    for (const std::string& body :
         {many, "{\"fault\":" + lists + "}", "{\"fault\":\"reset\",\"x\":" + lists + "}",
          std::string(500'000, '\n') + "x", "{\"" + std::string(500'000, 'x') + "\":1}",
          std::string("{\"fault\":\"forget\",\"uuid\":\"\xff\"}"), std::string("\0", 1)}) {
        EXPECT_EQ(connection.ask(makeRequest("PUT", "/-/faults", body)).result(),
                  http::status::bad_request);
    }
    EXPECT_EQ(connection.ask(makeRequest("GET", "/-/faults")).body(), R"({"faults":[]})");
}

TEST(AHostileClient, GetsARefusalForGarbage) {
    const RunningRegistry registry;
    std::minstd_rand random(1);
    for (int i = 0; i < 300; ++i) {
        std::string bytes(random() % 3'000, ' ');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        RawConnection connection = registry.connect();
        connection.send("\x01" + bytes);
        connection.endSending();
        EXPECT_EQ(connection.receive().result_int() / 100, 4U);
    }
    expectServed(registry.port());
}

std::ptrdiff_t countDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

void allowManyFiles() {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
}

TEST(AHostileClient, CannotShutOthersOutByThousandsOfConnections) {
    allowManyFiles();
    RegistryOptions options;
    options.maxConnections = 200;
    const RunningRegistry registry(options);
    const auto before = countDescriptors();
    std::vector<RawConnection> connections;
    connections.reserve(3'000);
    for (int i = 0; i < 3'000; ++i) {
        connections.push_back(registry.connect());
        connections.back().send(i % 2 == 0 ? "PUT /a HTTP/1.1\r\n" : "");
    }
    expectServed(registry.port());
    for (int i = 0; i < 2'800; ++i) {
        ASSERT_TRUE(connections[static_cast<std::size_t>(i)].endsWithin(10s)) << i;
    }
    EXPECT_LE(countDescriptors() - before, 3'000 + 200);
    connections.clear();
    for (const auto end = Clock::now() + 10s; countDescriptors() > before && Clock::now() < end;) {
        expectServed(registry.port());
    }
    EXPECT_LE(countDescriptors(), before);
}

TEST(AHostileClient, IsNotDroppedForOthersWhileItIsServed) {
    RegistryOptions options;
    options.maxConnections = 2;
    const RunningRegistry registry(options);
    RawConnection used = registry.connect();
    EXPECT_EQ(used.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    RawConnection idle = registry.connect();
    idle.send("GET / HT");
    EXPECT_EQ(used.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    expectServed(registry.port());
    EXPECT_TRUE(idle.endsWithin(5s));  // long before the time-out of a slow client
    EXPECT_EQ(used.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

TEST(AHostileClient, IsDroppedBeforeAnIdleOneAfterAHeaderThatIsTooLong) {
    RegistryOptions options;
    options.maxConnections = 2;
    options.farewellTimeout = 1min;
    const RunningRegistry registry(options);
    RawConnection hostile = registry.connect();
    RawConnection idle = registry.connect();
    EXPECT_EQ(idle.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    EXPECT_EQ(hostile.ask("GET / HTTP/1.1\r\nA: " + std::string(10'000, 'x') + "\r\n\r\n").result(),
              http::status::request_header_fields_too_large);
    expectServed(registry.port());
    EXPECT_EQ(idle.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

/// Limits the process to that number of free file descriptors.
void allowMoreFiles(pid_t pid, int more) {
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd/";
    rlimit files{0, 4'096};
    const auto isOpen = [&folder](rlim_t number) {
        return is_symlink(std::filesystem::path(folder + std::to_string(number)));
    };
    for (; more > 0 || isOpen(files.rlim_cur); ++files.rlim_cur) {
        more -= isOpen(files.rlim_cur) ? 0 : 1;
    }
    if (::prlimit(pid, RLIMIT_NOFILE, &files, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "prlimit");
    }
}

std::chrono::nanoseconds processorTime(pid_t pid) {
    clockid_t clock{};
    timespec used{};
    if (::clock_getcpuclockid(pid, &clock) != 0 || ::clock_gettime(clock, &used) != 0) {
        throw std::runtime_error("no clock of the process");
    }
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

TEST(ARegistryWithoutFileDescriptors, WaitsForOneWithoutBeingBusy) {
    RegistryProcess registry({"--port", "0"});
    const std::uint16_t port = registry.port();
    allowMoreFiles(registry.pid(), 0);
    RawConnection connection(port);
    connection.send(makeRequest("HEAD", "/"));
    const auto before = processorTime(registry.pid());
    EXPECT_FALSE(connection.endsWithin(1s));
    EXPECT_LT(processorTime(registry.pid()) - before, 300ms);
    allowMoreFiles(registry.pid(), 10);
    EXPECT_EQ(connection.receive(true).result(), http::status::ok);
}

TEST(ARegistryWithoutFileDescriptors, EndsTheConnectionThatHadNoAnswerForLongest) {
    RegistryProcess registry({"--port", "0"});
    const std::uint16_t port = registry.port();
    RawConnection used(port);
    EXPECT_EQ(used.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    allowMoreFiles(registry.pid(), 1);
    RawConnection idle(port);
    idle.send("GET / HT");
    EXPECT_EQ(used.ask(makeRequest("PUT", "/a", "{}")).result(), http::status::created);
    expectServed(port);
    EXPECT_TRUE(idle.endsWithin(5s));  // long before the time-out of a slow client
    EXPECT_EQ(used.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

}  // namespace
}  // namespace orvx::registry
