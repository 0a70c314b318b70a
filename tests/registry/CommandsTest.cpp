// Tests the commands that send requests to a registry, at real registries and at servers with wrong
// answers.
// Everything runs on the test's thread; the registry and a Client run on their own, the commands
// are processes. There is no lock.

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "Client.h"
#include "FakeServer.h"
#include "RegistryProcess.h"
#include "RunningRegistry.h"
#include "TemporaryFolder.h"
#include "TlsConnection.h"
#include "TokenLine.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

std::string urlOf(const RunningRegistry& registry, const std::string& scheme = "http") {
    return scheme + "://127.0.0.1:" + std::to_string(registry.port());
}

RegistryProcess::Result run(const RunningRegistry& registry, std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--registry", urlOf(registry)});
    return RegistryProcess(arguments).wait();
}

int statusOf(const RegistryProcess::Result& result) {
    return WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
}

std::string put(const RunningRegistry& registry, const std::string& path,
                const std::string& service) {
    const auto response = registry.connect().ask(makeRequest("PUT", path, service));
    return std::string(response[http::field::location]).substr(1);
}

constexpr const char* kLamp = R"({"name":"lamp","host":"10.0.0.5","port":80})";

TEST(TheListCommand, PrintsALineForEachEntry) {
    const RunningRegistry registry;
    EXPECT_THAT(run(registry, {"list"}).output, IsEmpty());
    const std::string lamp = put(registry, "/lamp", kLamp);
    const std::string evil = put(registry, "/evil", R"({"name":"\u001b[2J\u202ex"})");
    const auto result = run(registry, {"list"});
    EXPECT_EQ(statusOf(result), 0);
    EXPECT_EQ(result.output,
              lamp + "  10.0.0.5:80  /lamp  lamp\n" + evil + "  -:-  /evil  \\u001b[2J\\u202ex\n");
    EXPECT_THAT(run(registry, {"list", "--name", "lamp"}).output, StartsWith(lamp));
    EXPECT_THAT(run(registry, {"list", "--name", "a b&c"}).output, IsEmpty());
    const json entry = json::parse(run(registry, {"list", "--json", "--name", "lamp"}).output);
    EXPECT_EQ(entry.at("uuid"), lamp);
}

TEST(TheListCommand, PrintsAllPages) {
    const RunningRegistry registry;
    RawConnection connection = registry.connect();
    for (int i = 0; i < 2'500; ++i) {
        connection.ask(makeRequest("PUT", '/' + std::to_string(i), "{}"));
    }
    const std::string output = run(registry, {"list"}).output;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2'500);
    EXPECT_THAT(output, HasSubstr("  /2499  "));
}

TEST(TheListCommand, EscapesTheNameOfTheNextPage) {
    FakeServer server("127.0.0.1");
    RegistryProcess list({"list", "--registry", "http://" + server.authority()});
    server.answer(
        "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n{\"entries\":[],\"next\":\"a b&c\"}");
    EXPECT_THAT(server.answer("HTTP/1.1 200 OK\r\n\r\n{\"entries\":[]}"),
                HasSubstr("&after=a%20b%26c HTTP/1.1\r\n"));
    EXPECT_EQ(statusOf(list.wait()), 0);
}

// Before, it failed if its reader let it wait until the registry closed the idle connection.
TEST(TheListCommand, ContinuesOverANewConnectionWhenTheKeptOneHasEnded) {
    FakeServer server("127.0.0.1");
    RegistryProcess list({"list", "--registry", "http://" + server.authority()});
    server.answer("HTTP/1.1 200 OK\r\nContent-Length: 27\r\n\r\n{\"entries\":[],\"next\":\"x-1\"}");
    EXPECT_THAT(server.answer("HTTP/1.1 200 OK\r\nContent-Length: 14\r\n\r\n{\"entries\":[]}"),
                HasSubstr("&after=x-1 HTTP/1.1\r\n"));
    EXPECT_EQ(statusOf(list.wait()), 0);
}

TEST(TheRmCommand, DoesNotRepeatARequestThatTheRegistryMayHaveCarriedOut) {
    FakeServer server("127.0.0.1");
    RegistryProcess rm({"rm", "a", "b", "--json", "--registry", "http://" + server.authority()});
    const std::string entry = R"({"service":{},"uuid":"a"})";
    server.answer("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(entry.size()) +
                  "\r\n\r\n" + entry);
    const auto result = rm.wait();
    EXPECT_EQ(statusOf(result), 125);
    EXPECT_EQ(result.output, entry + "\n");
    EXPECT_THAT(result.errors, Not(HasSubstr("timeout")));
}

TEST(TheGetCommand, PrintsEntriesAndReportsThoseThatDoNotExist) {
    const RunningRegistry registry;
    const std::string lamp = put(registry, "/lamp", kLamp);
    const auto result = run(registry, {"get", lamp});
    EXPECT_EQ(statusOf(result), 0);
    EXPECT_THAT(result.output, HasSubstr("\n"));
    EXPECT_EQ(json::parse(result.output).at("path"), "/lamp");
    const auto missing = run(registry, {"get", "none", lamp, "--json"});
    EXPECT_EQ(statusOf(missing), 1);
    EXPECT_EQ(json::parse(missing.output).at("path"), "/lamp");
    EXPECT_THAT(missing.errors, HasSubstr("there is no entry \"none\""));
    const auto empty = run(registry, {"get", ""});
    EXPECT_EQ(statusOf(empty), 1);
    EXPECT_THAT(empty.output, IsEmpty());
}

TEST(TheRmCommand, RemovesEntries) {
    const RunningRegistry registry;
    const std::string lamp = put(registry, "/lamp", kLamp);
    const auto result = run(registry, {"rm", lamp});
    EXPECT_EQ(statusOf(result), 0);
    EXPECT_EQ(result.output, lamp + "  10.0.0.5:80  /lamp  lamp\n");
    EXPECT_EQ(statusOf(run(registry, {"rm", lamp})), 1);
    EXPECT_EQ(statusOf(run(registry, {"rm"})), 125);
}

TEST(TheWatchCommand, PrintsTheListAndWhatChanges) {
    const RunningRegistry registry;
    const std::string lamp = put(registry, "/lamp", kLamp);
    RegistryProcess watch({"watch", "--registry", urlOf(registry)});
    watch.awaitOutput("put      " + lamp + "  10.0.0.5:80  /lamp  lamp\n");
    const std::string bell = put(registry, "/bell", "{}");
    watch.awaitOutput("put      " + bell);
    registry.connect().ask(makeRequest("DELETE", '/' + lamp));
    watch.awaitOutput("removed  " + lamp + "\n");
    RegistryProcess asJson({"watch", "--json", "--registry", urlOf(registry)});
    asJson.awaitOutput(R"({"data":{"entries":1},"event":"list"})");
    asJson.awaitOutput(R"("event":"listed"})");
}

TEST(TheWatchCommand, AsksForTheChecksOnlyIfItPrintsThem) {
    using Arguments = std::vector<std::string>;
    for (const auto& [arguments, target] :
         {std::pair<Arguments, std::string>{{"watch"}, "/-/watch?checks=no"},
          {{"watch", "--json"}, "/-/watch"},
          {{"watch", "--exec", "cat"}, "/-/watch?checks=no"}}) {
        FakeServer server("127.0.0.1");
        Arguments all = arguments;
        all.insert(all.begin() + 1, {"--registry", "http://" + server.authority()});
        RegistryProcess watch(all);
        EXPECT_THAT(server.answer("HTTP/1.1 404 Not Found\r\nContent-Length: 2\r\n\r\n{}"),
                    StartsWith("GET " + target + " HTTP/1.1\r\n"));
        EXPECT_EQ(statusOf(watch.wait()), 125);
    }
}

// Before, it repeated the request without end and printed nothing.
TEST(TheWatchCommand, FailsAtAServerThatIsNoRegistry) {
    const std::string header = "HTTP/1.1 200 OK\r\nContent-Length: ";
    for (const auto& [answer, error] : {std::pair<std::string, std::string>{
                                            header + "7\r\n\r\nwelcome", "not a stream of changes"},
                                        {header + "90\r\n\r\nwelcome", "partial message"}}) {
        FakeServer server("127.0.0.1");
        RegistryProcess watch({"watch", "--registry", "http://" + server.authority()});
        server.answer(answer);
        const auto result = watch.wait();
        EXPECT_EQ(statusOf(result), 125);
        EXPECT_THAT(result.errors, HasSubstr(error));
    }
}

// The stream then begins with a whole list, which has no event for an entry that is gone.
TEST(TheWatchCommand, PrintsWhatWasRemovedWhileTheRegistryWasAway) {
    const std::string begin = "HTTP/1.1 200 OK\r\n\r\nevent: list\ndata: {\"entries\":1}\n\n";
    const std::string end = "event: listed\ndata: {}\n\n";
    const auto put = [](const std::string& uuid) {
        return "event: put\ndata: {\"uuid\":\"" + uuid + "\",\"service\":{}}\n\n";
    };
    const auto removed = [](const std::string& uuid) {
        return "event: removed\ndata: {\"uuid\":\"" + uuid + "\"}\n\n";
    };
    FakeServer server("127.0.0.1");
    RegistryProcess watch({"watch", "--registry", "http://" + server.authority()});
    server.answer(begin + put("a") + put("b") + put("c") + end + put("d") + removed("b"));
    server.answer(begin + put("c") + put("e"));  // it is cut before its end
    server.answer(begin + put("c") + end + put("f"));
    const auto lineOf = [](const std::string& uuid) {
        return "put      " + uuid + "  -:-  -  -\n";
    };
    const std::string output = watch.awaitOutput(lineOf("f"));
    EXPECT_EQ(output, lineOf("a") + lineOf("b") + lineOf("c") + lineOf("d") + "removed  b\n" +
                          lineOf("c") + lineOf("e") + lineOf("c") +
                          "removed  a\nremoved  d\nremoved  e\n" + lineOf("f"));
}

TEST(TheWatchCommand, ResumesWhereItsConnectionWasCut) {
    const TemporaryFolder folder;
    RegistryOptions options;
    options.tokens = folder / "tokens";
    std::ofstream(options.tokens) << tokenLine("all", R"("read":true,"announce":"/")");
    std::ofstream(folder / "token") << "all-secret\n";
    RunningRegistry registry(options);
    const auto putAs = [&](const std::string& path) {
        registry.connect().ask("PUT " + path +
                               " HTTP/1.1\r\nAuthorization: Bearer all-secret\r\n"
                               "Content-Length: 2\r\n\r\n{}");
    };
    putAs("/lamp");
    RegistryProcess watch(
        {"watch", "--json", "--registry", urlOf(registry), "--token-file", folder / "token"});
    watch.awaitOutput("\"listed\"");
    registry.reload();  // ends the stream
    putAs("/bell");
    const std::string output = watch.awaitOutput("/bell");
    EXPECT_EQ(output.find("\"event\":\"list\""), output.rfind("\"event\":\"list\""));
    EXPECT_EQ(output.find("/lamp"), output.rfind("/lamp"));
}

// Before, each new stream read the file again: a pipe was at its end then, and opening a FIFO
// waited for another writer.
TEST(TheWatchCommand, KeepsATokenThatCanBeReadOnlyOnce) {
    const TemporaryFolder folder;
    RegistryOptions options;
    options.tokens = folder / "tokens";
    std::ofstream(options.tokens) << tokenLine("all", R"("read":true,"announce":"/")");
    RunningRegistry registry(options);
    const auto putAs = [&](const std::string& path, const std::string& service) {
        registry.connect().ask("PUT " + path +
                               " HTTP/1.1\r\nAuthorization: Bearer all-secret\r\n"
                               "Content-Length: " +
                               std::to_string(service.size()) + "\r\n\r\n" + service);
    };
    const std::string fifo = folder / "token";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // A long service is fetched with a further connection.
    putAs("/lamp", R"({"text":")" + std::string(10'000, 'x') + "\"}");
    RegistryProcess watch(
        {"watch", "--registry", urlOf(registry), "--token-file", fifo, "--exec", "cat"});
    std::ofstream(fifo) << "all-secret\n";
    watch.awaitOutput("/lamp");
    registry.reload();  // ends the stream
    putAs("/bell", "{}");
    watch.awaitOutput("/bell");
}

TEST(TheCommands, RefuseAnEmptyToken) {
    const TemporaryFolder folder;
    const RunningRegistry registry;
    std::ofstream(folder / "token") << " \n";
    for (const std::string& file : {folder / "token", std::string("/dev/null")}) {
        const auto result = run(registry, {"list", "--token-file", file});
        EXPECT_EQ(statusOf(result), 125);
        EXPECT_EQ(result.errors, "orvx-registry: token " + file + ": it is empty\n");
    }
}

TEST(TheCommands, RefuseOptionsOfTheServer) {
    const RunningRegistry registry;
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--port", "9500", "list"},
          std::vector<std::string>{"--log", "list"},
          std::vector<std::string>{"--open", "rm", "none"}}) {
        const auto result = run(registry, arguments);
        EXPECT_EQ(statusOf(result), 125);
        EXPECT_THAT(result.output, IsEmpty());
        EXPECT_EQ(result.errors, "orvx-registry: " + arguments[0] +
                                     ": has no meaning with a command (orvx-registry --help lists "
                                     "the options)\n");
    }
}

TEST(TheCommands, SendATokenAndReportItsRefusal) {
    const TemporaryFolder folder;
    RegistryOptions options;
    options.tokens = folder / "tokens";
    std::ofstream(options.tokens) << tokenLine("lamps", R"("announce":"/lamps")");
    std::ofstream(folder / "token") << "lamps-secret\n";
    const RunningRegistry registry(options);
    const auto nobody = run(registry, {"list"});
    EXPECT_EQ(statusOf(nobody), 125);
    EXPECT_EQ(nobody.errors,
              "orvx-registry: the registry answers 401: \"a valid token is needed\"\n");
    const auto forbidden = run(registry, {"list", "--token-file", folder / "token"});
    EXPECT_THAT(forbidden.errors, HasSubstr("answers 403: \"the token may not read\""));
    EXPECT_THAT(forbidden.errors, Not(HasSubstr("secret")));
    EXPECT_EQ(statusOf(run(registry, {"rm", "none", "--token-file", folder / "token"})), 1);
    EXPECT_EQ(statusOf(run(registry, {"watch"})), 125);
}

TEST(TheCommands, SpeakTlsAndTrustOnlyTheGivenAuthority) {
    const TemporaryFolder folder;
    const Certificates certificates(folder / "");
    certificates.make("registry");
    certificates.make("me");
    RegistryOptions options;
    options.tls = {certificates.file("registry.pem"), certificates.file("registry.key"),
                   certificates.file("ca.pem")};
    const RunningRegistry registry(options);
    const std::vector<std::string> list{"list",
                                        "--registry",
                                        urlOf(registry, "https"),
                                        "--client-cert",
                                        certificates.file("me.pem"),
                                        "--client-key",
                                        certificates.file("me.key")};
    std::vector<std::string> trusting = list;
    trusting.insert(trusting.end(), {"--ca-file", certificates.file("ca.pem")});
    EXPECT_EQ(statusOf(RegistryProcess(trusting).wait()), 0);
    const auto untrusted = RegistryProcess(list).wait();
    EXPECT_EQ(statusOf(untrusted), 125);
    EXPECT_THAT(untrusted.errors, HasSubstr("certificate verify failed"));
    const auto plain = run(registry, {"list"});
    EXPECT_EQ(statusOf(plain), 125);
}

TEST(TheCommands, DoNotPrintAnAnswerThatIsNotJson) {
    for (const char* command : {"list", "get", "rm"}) {
        FakeServer server("127.0.0.1");
        std::vector<std::string> arguments{command, "--registry", "http://" + server.authority()};
        if (command != std::string("list")) {
            arguments.push_back("uuid");
        }
        RegistryProcess process(arguments);
        server.answer("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\n{\"\x1b[2J");
        const auto result = process.wait();
        EXPECT_EQ(statusOf(result), 125);
        EXPECT_EQ(result.errors,
                  "orvx-registry: the registry answers with something that is not JSON\n");
    }
    FakeServer server("127.0.0.1");
    RegistryProcess watch({"watch", "--registry", "http://" + server.authority()});
    server.answer("HTTP/1.1 200 OK\r\n\r\nevent: put\ndata: {\"\x1b[2J\n\n");
    const auto result = watch.wait();
    EXPECT_EQ(statusOf(result), 125);
    EXPECT_EQ(result.errors,
              "orvx-registry: the registry answers with something that is not JSON\n");
}

/// The errors of a command that gets this answer to a request for the list or for an entry.
std::string errorAt(const std::string& command, const std::string& body) {
    FakeServer server("127.0.0.1");
    std::vector<std::string> arguments{command, "--registry", "http://" + server.authority()};
    if (command != "list") {
        arguments.push_back("uuid");
    }
    RegistryProcess process(arguments);
    server.answer("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                  body);
    const auto result = process.wait();
    EXPECT_EQ(statusOf(result), 125) << command << ' ' << body.substr(0, 80);
    return result.errors;
}

TEST(TheCommands, RefuseAnAnswerThatNestsTooDeeply) {
    const std::string deep = std::string(200'000, '[') + std::string(200'000, ']');
    const std::string entry = R"({"uuid":"u","path":"/","service":{"name":)" + deep + "}}";
    for (const char* command : {"get", "rm"}) {
        EXPECT_THAT(errorAt(command, entry), HasSubstr("is not JSON"));
    }
    EXPECT_THAT(errorAt("list", R"({"entries":[)" + entry + "]}"), HasSubstr("is not JSON"));
}

// Before, they took an answer without an end for as long as their memory lasted.
TEST(TheCommands, RefuseAnAnswerOfMoreThanTwoGibibytes) {
    for (const char* header :
         {"Content-Length: 2147483649\r\n\r\n", "Content-Length: 100000000000\r\n\r\n",
          "Transfer-Encoding: chunked\r\n\r\n80000001\r\n"}) {
        for (const char* command : {"list", "get", "rm"}) {
            FakeServer server("127.0.0.1");
            std::vector<std::string> arguments{command, "--registry",
                                               "http://" + server.authority()};
            if (command != std::string("list")) {
                arguments.push_back("uuid");
            }
            RegistryProcess process(arguments);
            server.answer(std::string("HTTP/1.1 200 OK\r\n") + header);
            const auto result = process.wait();
            EXPECT_EQ(statusOf(result), 125);
            EXPECT_THAT(result.errors, HasSubstr("body limit exceeded"));
        }
    }
}

// Before, it took such an event for as long as its memory lasted.
TEST(TheWatchCommand, RefusesAnEventOfMoreThan64Kibibytes) {
    const std::string tooLong = "event: put\ndata: " + std::string(66'000, 'x');
    const std::string error = "orvx-registry: the registry sends an event of more than 64 KiB\n";
    {
        FakeServer server("127.0.0.1");
        RegistryProcess watch({"watch", "--registry", "http://" + server.authority()});
        server.answer("HTTP/1.1 200 OK\r\n\r\n" + tooLong);
        const auto result = watch.wait();
        EXPECT_EQ(statusOf(result), 125);
        EXPECT_EQ(result.errors, error);
    }
    FakeServer server("127.0.0.1");
    RegistryProcess watch({"watch", "--json", "--registry", "http://" + server.authority()});
    server.answer("HTTP/1.1 200 OK\r\n\r\nevent: state\nid: a-1\ndata: {}\n\n" + tooLong);
    EXPECT_EQ(watch.awaitErrors("\n"), error);
    EXPECT_THAT(server.answer(""), HasSubstr("\r\nLast-Event-ID: a-1\r\n"));
}

/// Sends the pieces of a body with pauses, until the client closes its connection. Then the client
/// has an answer of `bytes`, or has thrown an exception.
std::future<Response> askAtSlowServer(std::size_t bytes, std::size_t piece, int pause) {
    boost::asio::io_context context;
    boost::asio::ip::tcp::acceptor acceptor(context,
                                            {boost::asio::ip::make_address("127.0.0.1"), 0});
    ClientOptions options;
    options.url = "http://127.0.0.1:" + std::to_string(acceptor.local_endpoint().port());
    options.timeout = std::chrono::seconds(1);
    auto answer = std::async(std::launch::async,
                             [options] { return Client(options).ask(http::verb::get, "/"); });
    auto socket = acceptor.accept();
    std::string request;
    boost::asio::read_until(socket, boost::asio::dynamic_buffer(request), "\r\n\r\n");
    boost::system::error_code error;
    const std::string header =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(bytes) + "\r\n\r\n";
    boost::asio::write(socket, boost::asio::buffer(header), error);
    pollfd closed{socket.native_handle(), POLLIN | POLLRDHUP, 0};
    for (std::size_t sent = 0; sent < bytes && ::poll(&closed, 1, pause) == 0; sent += piece) {
        const std::string part(std::min(piece, bytes - sent), 'x');
        boost::asio::write(socket, boost::asio::buffer(part), error);
    }
    return answer;
}

// Before, a list needed a line that brings a page of it within ten seconds.
TEST(AClient, WaitsForALongAnswerOverASlowLine) {
    EXPECT_EQ(askAtSlowServer(2'000'000, 200'000, 150).get().body().size(), 2'000'000U);
}

TEST(AClient, DoesNotWaitForAnAnswerThatArrivesByteByByte) {
    EXPECT_THROW(askAtSlowServer(1'000'000, 1, 5).get(), std::runtime_error);
}

TEST(TheCommands, DoNotPrintJsonOfAnUnexpectedForm) {
    const std::string error =
        "orvx-registry: the registry answers with JSON that is not as expected\n";
    for (const char* body : {"[]", "{}", R"({"entries":[1]})", R"({"entries":[],"next":null})"}) {
        EXPECT_EQ(errorAt("list", body), error) << body;
    }
    for (const char* body : {"[]", "{}", "1", R"({"uuid":"u"})", R"({"service":{}})"}) {
        EXPECT_EQ(errorAt("get", body), error) << body;
        EXPECT_EQ(errorAt("rm", body), error) << body;
    }
}

TEST(TheListCommand, EndsWhenAPageRefersToItself) {
    FakeServer server("127.0.0.1");
    RegistryProcess list({"list", "--registry", "http://" + server.authority()});
    const std::string page = R"({"entries":[],"next":"x-1"})";
    const std::string answer = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + page;
    server.answer(answer);
    server.answer(answer);
    const auto result = list.wait();
    EXPECT_EQ(statusOf(result), 125);
    EXPECT_THAT(result.errors, HasSubstr("the same page again"));
}

TEST(TheCommands, EndWithAFailureWhenStdoutCannotBeWritten) {
    const RunningRegistry registry;
    const std::string lamp = put(registry, "/lamp", kLamp);
    for (const std::string& command :
         {std::string("list >&-"), std::string("list >/dev/full"), std::string("watch >/dev/full"),
          "get >/dev/full " + lamp, "rm >/dev/full " + lamp}) {
        const auto result =
            ChildProcess("/bin/sh", {"-c", "exec \"$0\" " + command + " --registry \"$1\"",
                                     RegistryProcess::path(), urlOf(registry)})
                .wait();
        EXPECT_EQ(statusOf(result), 125) << command;
        EXPECT_EQ(result.errors, "orvx-registry: stdout cannot be written\n") << command;
    }
}

TEST(TheCommands, SendTheHostAndThePortOfTheirUrl) {
    for (const char* address : {"127.0.0.1", "::1"}) {
        if (address == std::string("::1") &&
            std::ifstream("/proc/net/if_inet6").peek() == std::ifstream::traits_type::eof()) {
            GTEST_SKIP() << "this machine has no IPv6";
        }
        FakeServer server(address);
        RegistryProcess list({"list", "--registry", "http://" + server.authority() + '/'});
        EXPECT_THAT(server.answer("HTTP/1.1 503 \r\nContent-Length: 0\r\n\r\n"),
                    HasSubstr("\r\nHost: " + server.authority() + "\r\n"));
        EXPECT_EQ(statusOf(list.wait()), 125);
    }
}

TEST(TheCommands, RefuseAnInvalidUrl) {
    for (const char* url : {"", "127.0.0.1:8500", "ftp://a", "http://", "http://a:x", "http://a/b",
                            "http://user:secret@a"}) {
        const auto result = RegistryProcess({"list", "--registry", url}).wait();
        EXPECT_EQ(statusOf(result), 125) << url;
        EXPECT_THAT(result.errors, Not(HasSubstr("secret")));
    }
    EXPECT_EQ(statusOf(RegistryProcess({"list", "--registry", "http://127.0.0.1:1"}).wait()), 125);
}

}  // namespace
}  // namespace orvx::registry
