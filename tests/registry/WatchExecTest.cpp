// Tests the command of watch --exec: when it runs, its input, and its end. The test and the
// registry run on threads; the program and the command are processes. There is no lock.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "FakeServer.h"
#include "RegistryProcess.h"
#include "RunningRegistry.h"
#include "TemporaryFolder.h"
#include "TokenLine.h"

namespace orvx::registry {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

class TheWatchedCommand : public ::testing::Test {
  protected:
    static std::vector<std::string> watching(const std::string& url,
                                             const std::vector<std::string>& rest) {
        std::vector<std::string> arguments{"watch", "--registry", url};
        arguments.insert(arguments.end(), rest.begin(), rest.end());
        return arguments;
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(registry.port()); }
    /// Starts the program with a shell script as the command.
    RegistryProcess& watch(const std::string& script, std::vector<std::string> options = {}) {
        options.insert(options.end(), {"--exec", "sh", "-c", script, "-x"});
        return program.emplace(watching(url(), options));
    }
    void put(const std::string& path, const std::string& service = "{}") const {
        registry.connect().ask(makeRequest("PUT", path, service));
    }

    const TemporaryFolder folder;
    RunningRegistry registry;
    std::optional<RegistryProcess> program;
};

TEST_F(TheWatchedCommand, RunsWithTheFirstListAndWithEachChange) {
    RegistryProcess& watched = watch("cat; echo \"$0 end\"");
    watched.awaitOutput("{\"entries\":[]}\n-x end\n");
    put("/lamp", R"({"name":"lamp"})");
    watched.awaitOutput(R"([{"path":"/lamp","service":{"name":"lamp"},"uuid":")");
    const std::string list = registry.connect().ask(makeRequest("GET", "/")).body();
    const std::string uuid = nlohmann::json::parse(list).at("entries").at(0).at("uuid");
    registry.connect().ask(makeRequest("DELETE", '/' + uuid));
    const std::string end = "\"}]}\n-x end\n{\"entries\":[]}\n-x end\n";
    EXPECT_THAT(watched.awaitOutput(end), HasSubstr(end));
}

TEST_F(TheWatchedCommand, GetsOnlyEntriesThatMatch) {
    RegistryProcess& watched = watch("cat", {"--name", "lamp", "--version", "1.0"});
    watched.awaitOutput("[]}\n");
    put("/bell", R"({"name":"bell","versions":["1.0"]})");
    put("/lamp", R"({"name":"lamp","versions":["1.0"]})");
    EXPECT_THAT(watched.awaitOutput("/lamp"), Not(HasSubstr("bell")));
}

TEST_F(TheWatchedCommand, GetsArgumentsThatAreOptionsWithAnEmptyValue) {
    RegistryProcess watched(watching(url(), {"--exec", "--name", "lamp", "echo", "--name="}));
    watched.awaitOutput("--name=\n");
}

TEST_F(TheWatchedCommand, GetsTheWholeOfALongService) {
    put("/lamp", R"({"name":"lamp","text":")" + std::string(100'000, 'x') + "\"}");
    watch("cat", {"--name", "lamp"}).awaitOutput(std::string(100'000, 'x') + "\"},\"uuid\":");
}

TEST_F(TheWatchedCommand, NeedNotReadItsInput) {
    put("/lamp", R"({"text":")" + std::string(1'000'000, 'x') + "\"}");
    RegistryProcess& watched = watch("exec 0<&-; echo run");
    watched.awaitOutput("run\n");
    put("/bell");
    watched.awaitOutput("run\nrun\n");
}

TEST_F(TheWatchedCommand, RunsOnceMoreForAllChangesDuringARun) {
    ASSERT_EQ(::mkfifo((folder / "go").c_str(), 0600), 0);
    RegistryProcess& watched = watch("echo begin; read line <'" + (folder / "go") +
                                     "'; grep -o '/[a-z]*' | tr -d '\\n'; echo");
    watched.awaitOutput("begin\n");
    RegistryProcess other({"watch", "--registry", url()});
    for (const char* path : {"/a", "/b", "/c"}) {
        put(path);
        other.awaitOutput(path);
    }
    std::ofstream(folder / "go") << "go\n";
    watched.awaitOutput("begin\n\nbegin\n");
    std::ofstream(folder / "go") << "go\n";
    watched.awaitOutput("begin\n\nbegin\n/a/b/c\n");
}

TEST_F(TheWatchedCommand, RunsAgainWhenItFailed) {
    RegistryProcess& watched =
        watch("cat; cd '" + (folder / "") + "' && mkdir once && exit 3; echo done");
    EXPECT_THAT(watched.awaitErrors("\n"),
                HasSubstr("orvx-registry: sh: ended with exit status 3\n"));
    watched.awaitOutput("[]}\n{\"entries\":[]}\ndone\n");
}

TEST_F(TheWatchedCommand, RunsAgainWithTheNextChangeAlsoAfterAFailure) {
    RegistryProcess& watched = watch("grep -q /lamp || kill -9 $$; echo done");
    EXPECT_THAT(watched.awaitErrors("\n"), HasSubstr("sh: ended by signal 9\n"));
    put("/lamp");
    watched.awaitOutput("done\n");
}

TEST_F(TheWatchedCommand, IsReportedWhenItCannotBeStarted) {
    RegistryProcess watched(watching(url(), {"--exec", "/there/is/none"}));
    EXPECT_THAT(watched.awaitErrors("\n"),
                HasSubstr("orvx-registry: /there/is/none: ended with exit status 127\n"));
}

TEST_F(TheWatchedCommand, HasNoDescriptorOfTheProgram) {
    const std::string& output = watch("ls -l /proc/self/fd; echo end").awaitOutput("end\n");
    EXPECT_THAT(output, Not(HasSubstr("socket")));
    EXPECT_THAT(output, Not(HasSubstr(" 4 -> ")));
}

TEST_F(TheWatchedCommand, IsEndedWithTheProgram) {
    for (const int signal : {SIGTERM, SIGKILL}) {
        const std::string fifo = folder / std::to_string(signal).c_str();
        ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
        RegistryProcess& watched = watch("echo begin; exec 3>'" + fifo + "'; exec sleep 1000");
        std::ifstream ends(fifo);  // until the command is gone
        watched.awaitOutput("begin\n");
        watched.signal(signal);
        EXPECT_EQ(ends.get(), std::ifstream::traits_type::eof());
        EXPECT_EQ(WTERMSIG(watched.wait().status), signal);
    }
}

/// The processes of the command that run or are not reaped.
std::size_t childrenOf(pid_t pid) {
    std::size_t count = 0;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        std::ifstream file(task.path() / "children");
        count += static_cast<std::size_t>(
            std::distance(std::istream_iterator<pid_t>(file), std::istream_iterator<pid_t>()));
    }
    return count;
}

TEST_F(TheWatchedCommand, IsReapedBeforeItRunsAgain) {
    RegistryProcess& watched = watch("grep -o '\"path\":\"/[a-z]*' || echo none");
    watched.awaitOutput("none\n");
    for (const std::string path : {"/a", "/b", "/c"}) {
        put(path);
        watched.awaitOutput(path);
        EXPECT_LE(childrenOf(watched.pid()), 1U);
    }
}

TEST_F(TheWatchedCommand, DoesNotRunWhileTheRegistryIsAwayAndRunsWithTheListAfterwards) {
    std::optional<RegistryProcess> first(std::in_place, std::vector<std::string>{"--port", "0"});
    const std::uint16_t port = first->port();
    RawConnection(port).ask(makeRequest("PUT", "/lamp", "{}"));
    RegistryProcess watched(
        watching("http://127.0.0.1:" + std::to_string(port), {"--exec", "cat"}));
    watched.awaitOutput("/lamp");
    first.reset();
    watched.awaitErrors("orvx-registry: registry ");
    RegistryProcess second({"--port", std::to_string(port)});
    const std::string output = watched.awaitOutput("\n{\"entries\":[]}\n");
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 2);
}

TEST_F(TheWatchedCommand, IsAcceptedOnlyAfterExec) {
    const auto statusOf = [this](const std::vector<std::string>& rest) {
        const auto result = RegistryProcess(watching(url(), rest)).wait();
        return WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
    };
    EXPECT_EQ(statusOf({"--exec"}), 125);
    EXPECT_EQ(statusOf({"--exec", "--unknown"}), 125);
    EXPECT_EQ(statusOf({"--unknown"}), 125);
    EXPECT_EQ(statusOf({"true"}), 125);
    EXPECT_EQ(statusOf({"--name", "lamp"}), 125);
}

TEST(AWatchThatIsRefused, ReportsTheRefusalOnceAndRetriesAtGrowingIntervals) {
    FakeServer server("127.0.0.1");
    RegistryProcess watch({"watch", "--registry", "http://" + server.authority()});
    server.answer("HTTP/1.1 200 OK\r\n\r\nevent: listed\nid: 1-1\ndata: {}\n\n");
    const std::string refusal = "HTTP/1.1 401 \r\nContent-Length: 0\r\n\r\n";
    server.answer(refusal);
    const auto begin = std::chrono::steady_clock::now();
    server.answer(refusal);
    server.answer(refusal);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
    server.answer("HTTP/1.1 200 OK\r\n\r\nevent: removed\nid: 1-2\ndata: {\"uuid\":\"end\"}\n\n");
    watch.awaitOutput("end");
    // An event ends the series of refusals: the pause is one second again, not eight.
    server.answer(refusal);
    const auto again = std::chrono::steady_clock::now();
    server.answer(refusal);
    EXPECT_LT(std::chrono::steady_clock::now() - again, std::chrono::seconds(5));
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait().errors,
              "orvx-registry: the registry answers 401\norvx-registry: the registry answers 401\n");
}

TEST(AWatchWithAnEventThatIsNotAsExpected, ReportsItAndReadsTheListAgain) {
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{}, std::vector<std::string>{"--exec", "cat"}}) {
        FakeServer server("127.0.0.1");
        std::vector<std::string> arguments{"watch", "--registry", "http://" + server.authority()};
        arguments.insert(arguments.end(), options.begin(), options.end());
        RegistryProcess watch(arguments);
        server.answer(
            "HTTP/1.1 200 OK\r\n\r\nevent: list\nid: 1-1\ndata: {}\n\n"
            "event: put\nid: 1-2\ndata: {}\n\n");
        EXPECT_THAT(server.answer("HTTP/1.1 200 OK\r\n\r\nevent: list\ndata: {}\n\n"
                                  "event: put\ndata: {\"number\":1,\"path\":\"/end\","
                                  "\"service\":{},\"uuid\":\"a\"}\n\n"
                                  "event: listed\nid: 1-3\ndata: {}\n\n"),
                    Not(HasSubstr("Last-Event-ID")));
        watch.awaitOutput("/end");
        watch.signal(SIGTERM);
        EXPECT_THAT(watch.wait().errors,
                    StartsWith("orvx-registry: the registry answers with JSON that is not as "
                               "expected\n"));
    }
}

// Before, the program began a new stream, with the whole list, after each failed fetch. If an entry
// was replaced often, this did not end.
TEST(ALongServiceThatCannotBeFetched, IsFetchedAgainWhileTheStreamGoesOn) {
    FakeServer server("127.0.0.1");
    RegistryProcess watch(
        {"watch", "--registry", "http://" + server.authority(), "--name", "lamp", "--exec", "cat"});
    const auto put = [](const std::string& uuid, const std::string& name) {
        return R"(event: put
data: {"cut":7000,"number":1,"path":"/lamp","service":{"name":")" +
               name + R"("},"uuid":")" + uuid + "\"}\n\n";
    };
    const std::string state = "HTTP/1.1 200 OK\r\n\r\nevent: state\ndata: {}\n\n";
    server.answer("HTTP/1.1 200 OK\r\n\r\nevent: list\ndata: {}\n\n" + put("a", "bell") +
                  put("b", "lamp") + "event: listed\nid: 1-1\ndata: {}\n\n");
    EXPECT_THAT(server.answer("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"),
                HasSubstr("GET /b "));
    EXPECT_THAT(server.answer(state), HasSubstr("Last-Event-ID: 1-1"));
    const std::string fetched =
        server.answer("HTTP/1.1 200 OK\r\nContent-Length: 90\r\n\r\n{\"path\"");
    EXPECT_THAT(fetched, HasSubstr("GET /b "));
    server.answer(state);  // too early: the pause grows
    EXPECT_THAT(server.answer(state), HasSubstr("Last-Event-ID: 1-1"));
    const std::string body = R"({"path":"/lamp","service":{"name":"lamp"},"uuid":"b"})";
    server.answer("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                  body);
    watch.awaitOutput("{\"entries\":[" + body + "]}\n");
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait().errors,
              "orvx-registry: the registry answers with JSON that is not as expected\n"
              "orvx-registry: registry 127.0.0.1 port " +
                  server.authority().substr(server.authority().rfind(':') + 1) +
                  ": partial message\n");
}

}  // namespace
}  // namespace orvx::registry
