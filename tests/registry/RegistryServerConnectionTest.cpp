// Tests connections to the registry: kept, aborted, idle, slow and many connections, and those that
// are open when it stops. The registry runs on its own thread, the test on the main one; they share
// sockets only.
// There is no lock.

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <boost/beast/http/status.hpp>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "RunningRegistry.h"
#include "RunningThreads.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using namespace std::chrono_literals;

void expectAlive(const RunningRegistry& registry) {
    EXPECT_EQ(registry.connect().ask(makeRequest("HEAD", "/")).result(), http::status::ok);
}

TEST(ARegistryConnection, ServesRequestAfterRequest) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    for (int i = 0; i < 50; ++i) {
        const auto response =
            connection.ask(makeRequest("PUT", "/" + std::to_string(i), R"({"a":1})"));
        EXPECT_EQ(response.result(), http::status::created);
        EXPECT_TRUE(response.keep_alive());
    }
    EXPECT_EQ(json::parse(connection.ask(makeRequest("GET", "/")).body()).at("entries").size(),
              50U);
}

TEST(ARegistryConnection, AnswersRequestsSentTogetherInTheirOrder) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    std::string requests;
    for (int i = 0; i < 500; ++i) {
        requests += makeRequest("PUT", "/" + std::to_string(i), R"({"a":1})");
    }
    connection.send(requests);
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(json::parse(connection.receive().body()).at("path"), "/" + std::to_string(i));
    }
}

TEST(ARegistryConnection, ReadsARequestThatArrivesByteByByte) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    for (const char byte : makeRequest("PUT", "/a", R"({"a":1})")) {
        connection.send({byte});
    }
    EXPECT_EQ(connection.receive().result(), http::status::created);
}

TEST(ARegistryConnection, AnswersAClientThatHasEndedSending) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    connection.send(makeRequest("PUT", "/a", "{}"));
    connection.endSending();
    EXPECT_EQ(connection.receive().result(), http::status::created);
    EXPECT_TRUE(connection.isClosedByPeer());
}

TEST(ARegistryConnection, EndsWhenTheRequestAsksForIt) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    const auto response = connection.ask("GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(response.result(), http::status::ok);
    EXPECT_FALSE(response.keep_alive());
    EXPECT_TRUE(connection.isClosedByPeer());
}

TEST(ARegistryConnection, ChangesNothingByHalfARequest) {
    const RunningRegistry registry;
    const std::string whole = makeRequest("PUT", "/a", R"({"a":1})");
    for (const std::size_t size : {std::size_t{1}, whole.size() / 2, whole.size() - 1}) {
        RawConnection connection = registry.connect();
        connection.send(whole.substr(0, size));
        connection.endSending();
        EXPECT_EQ(connection.receive().result(), http::status::bad_request);
    }
    const auto list = registry.connect().ask(makeRequest("GET", "/"));
    EXPECT_EQ(json::parse(list.body()), json::parse(R"({"entries":[]})"));
}

TEST(ARegistryConnection, MayCloseItsConnectionAtAnyTime) {
    const RunningRegistry registry;
    const std::string whole = makeRequest("PUT", "/a", R"({"a":1})");
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        registry.connect().send(whole.substr(0, size));
    }
    expectAlive(registry);
}

TEST(ARegistryConnection, EndsWhenIdleTooLong) {
    RegistryOptions options;
    options.idleTimeout = 50ms;
    EXPECT_TRUE(RunningRegistry(options).connect().isClosedByPeer());
    options.idleTimeout = 1s;  // within which the requests must be sent
    const RunningRegistry registry(options);
    RawConnection used = registry.connect();
    EXPECT_EQ(used.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    EXPECT_TRUE(used.isClosedByPeer());
    expectAlive(registry);
}

TEST(ARegistryConnection, EndsWhenARequestTakesTooLong) {
    RegistryOptions options;
    options.requestTimeout = 50ms;
    const RunningRegistry registry(options);
    for (const char* part :
         {"P", "PUT / HTTP/1.1\r\n", "PUT / HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\n\r\n{"}) {
        RawConnection connection = registry.connect();
        connection.send(part);
        EXPECT_TRUE(connection.isClosedByPeer());
    }
}

TEST(ARegistryConnection, EndsWhenTheClientDoesNotTakeItsAnswer) {
    RegistryOptions options;
    options.writeTimeout = 1s;
    const RunningRegistry registry(options);
    RawConnection writer = registry.connect();
    const std::string service = R"({"a":")" + std::string(1'000'000, 'x') + R"("})";
    for (int i = 0; i < 12; ++i) {
        writer.ask(makeRequest("PUT", "/" + std::to_string(i), service));
    }
    RawConnection connection(registry.port(), 4096);
    // Because of unread bytes the registry's close becomes a reset, which the client sees at once.
    connection.send(makeRequest("GET", "/") + std::string(65'536, 'x'));
    EXPECT_NO_THROW(connection.awaitReset());
    expectAlive(registry);
}

void allowManyFiles() {
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
}

void askEach(std::vector<RawConnection>& connections) {
    for (RawConnection& connection : connections) {
        connection.send(makeRequest("HEAD", "/"));
    }
    for (RawConnection& connection : connections) {
        ASSERT_EQ(connection.receive(true).result(), http::status::ok);
    }
}

TEST(ARegistryConnection, CostsNoThread) {
    allowManyFiles();
    const RunningRegistry registry;
    const auto threads = testing::runningThreads().size();
    std::vector<RawConnection> connections;
    connections.reserve(500);
    for (int i = 0; i < 500; ++i) {
        connections.push_back(registry.connect());
    }
    askEach(connections);
    EXPECT_EQ(testing::runningThreads().size(), threads);
    askEach(connections);
}

TEST(ARegistryConnection, EndsInEveryStateWhenTheRegistryStops) {
    RunningRegistry registry;
    RawConnection used = registry.connect();
    EXPECT_EQ(used.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    RawConnection halfway = registry.connect();
    halfway.send("PUT /a HTTP/1.1\r\nContent-Length: 9\r\nExpect: 100-continue\r\n\r\n");
    EXPECT_EQ(halfway.receive(true).result(), http::status::continue_);
    RawConnection refused = registry.connect();
    EXPECT_EQ(refused.ask("garbage\r\n\r\n").result(), http::status::bad_request);
    registry.stop();
    EXPECT_TRUE(used.isClosedByPeer());
    EXPECT_TRUE(halfway.isClosedByPeer());
    EXPECT_TRUE(refused.isClosedByPeer());
    EXPECT_THROW(registry.connect(), std::runtime_error);
}

}  // namespace
}  // namespace orvx::registry
