// Runs the example programs as a user does: their output, their exit status, and the entries at the
// registry. Threads: the test's, the registry's, and that of the server in front of it; they share
// sockets only. Each example is a process.
#include "ChildProcess.h"
#include "IntegrationTest.h"
#include "Paths.h"
#include "PrometheusText.h"

#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

using registry::ChildProcess;
using std::chrono::steady_clock;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using testing::HostileServer;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using testing::Request;
using testing::Script;
using ::testing::UnorderedElementsAre;

class Example : public ChildProcess {
  public:
    Example(const std::string& name, std::vector<std::string> arguments)
        : ChildProcess(std::string(paths::kExamplePrograms) + "/" + name, std::move(arguments)) {}
    Example(const std::string& name, std::uint16_t port)
        : Example(name, std::vector<std::string>{"127.0.0.1", std::to_string(port)}) {}

    /// Expects this exit code. Returns the output.
    std::string printed(int exitCode = 0) {
        const Result result = wait();
        EXPECT_TRUE(WIFEXITED(result.status)) << result.status;
        EXPECT_EQ(WEXITSTATUS(result.status), exitCode) << result.errors;
        return result.output;
    }
};

class TheExamples : public ::testing::Test {
  protected:
    json entries() const { return entriesAt(registry.port()); }

    registry::RunningRegistry registry;
    HostileServer front;
};

using TheAnnounceExample = TheExamples;
using TheBlockingExample = TheExamples;
using TheCollectionExample = TheExamples;
using TheManyExample = TheExamples;
using TheMetricsExample = TheExamples;
using TheShutdownExample = TheExamples;

TEST_F(TheAnnounceExample, AnnouncesUntilItsInputEnds) {
    Example announce("announce", registry.port());
    announce.awaitOutput("announced: OK\n");
    EXPECT_EQ(entries().at(0).at("service").at("name"), "echo");
    EXPECT_EQ(entries().at(0).at("service").at("port"), 8080);
    announce.endInput();
    EXPECT_EQ(announce.printed(),
              "echo is registered\nannounced: OK\necho is not registered\nwithdrawn: OK\n");
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheAnnounceExample, AnnouncesALostServiceAgain) {
    Example announce("announce", registry.port());
    announce.awaitOutput("announced: OK\n");
    const std::string target = "/" + entries().at(0).at("uuid").get<std::string>();
    registry.connect().ask(registry::makeRequest("DELETE", target));
    announce.awaitOutput("echo is not registered\necho is registered\n");
    EXPECT_EQ(entries().size(), 1U);
    announce.endInput();
    announce.printed();
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheAnnounceExample, SaysThatNothingWasAnnouncedAtADeadRegistry) {
    const testing::RefusedPort refused;
    Example announce("announce", refused.port());
    announce.endInput();
    EXPECT_EQ(announce.printed(1), "announced: OTHER\n");
}

TEST_F(TheBlockingExample, RegistersAndWithdraws) {
    EXPECT_EQ(Example("blocking", registry.port()).printed(), "announced\nwithdrawn: OK\n");
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheCollectionExample, RegistersAndWithdrawsAllOfIt) {
    std::istringstream printed(Example("collection", registry.port()).printed());
    std::vector<std::string> lines;
    for (std::string line; std::getline(printed, line);) {
        lines.push_back(line);
    }
    EXPECT_THAT(lines, UnorderedElementsAre("echo: OK", "time: OK", "quote: OK", "withdrawn: all"));
    EXPECT_EQ(lines.back(), "withdrawn: all");
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheCollectionExample, PutsEachEntryAtThePathOfItsInstance) {
    front.onRequest([this](const Request& request) { return passOn(request, registry.port()); });
    Example("collection", front.port()).printed();
    std::vector<std::string> paths;
    for (const Request& request : front.requests()) {
        if (request.method == "PUT") {
            paths.push_back(request.target);
        }
    }
    EXPECT_THAT(paths, UnorderedElementsAre("/echo/127.0.0.1:8080", "/time/127.0.0.1:8080",
                                            "/quote/127.0.0.1:8080"));
}

TEST_F(TheManyExample, AnnouncesAllAgainWhenTheRegistryHasLostThemAndWithdrawsThem) {
    Example many("many", {"127.0.0.1", std::to_string(registry.port()), "300"});
    many.awaitOutput("announced\n");
    const json all = entries();
    EXPECT_EQ(all.size(), 300U);
    EXPECT_EQ(all.at(0).at("service").value("host", ""), "127.0.0.1");
    auto connection = registry.connect();
    for (const json& entry : all) {
        const std::string target = "/" + entry.at("uuid").get<std::string>();
        connection.ask(registry::makeRequest("DELETE", target));
    }
    EXPECT_TRUE(eventually([this] { return entries().size() == 300; }));
    many.signal(SIGTERM);
    many.printed();
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheManyExample, WithdrawsAllWhenItIsTerminatedOrInterrupted) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Example many("many", {"127.0.0.1", std::to_string(registry.port()), "3"});
        many.awaitOutput("announced\n");
        many.signal(signal);
        many.printed();
        EXPECT_TRUE(entries().empty());
    }
}

/// The samples in a text for Prometheus, by metric and labels. Fails the test if the text breaks a
/// rule of the format 0.0.4 or its naming conventions. Prometheus' own checker is part of its
/// server.
std::map<std::string, double> samplesOf(const std::string& text) {
    static const std::string kName = "([a-zA-Z_:][a-zA-Z0-9_:]*)";
    static const std::regex kHelp("# HELP " + kName + R"( ([^\\]|\\\\|\\n)+)");
    static const std::regex kType("# TYPE " + kName + " (counter|gauge)");
    static const std::regex kSample(kName + R"re(\{(.*)\} ([0-9]+(\.[0-9]+)?))re");
    static const std::regex kLabel(R"re(([a-zA-Z_][a-zA-Z0-9_]*)="(([^"\\]|\\["\\n])*)"(,|$))re");
    static const std::regex kTotal(".*_total");
    static const std::regex kUnusual(".*(_count|_sum|_bucket|_info|_time|_ms|_milliseconds)");
    std::map<std::string, double> samples;
    std::set<std::string> metrics;
    std::string metric;
    bool isTyped = true;
    std::istringstream lines(text);
    EXPECT_EQ(text.empty() ? '\n' : text.back(), '\n');
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, kHelp)) {
            EXPECT_TRUE(isTyped) << line;
            metric = match[1];
            EXPECT_TRUE(metrics.insert(metric).second) << line;
            isTyped = false;
        } else if (std::regex_match(line, match, kType)) {
            EXPECT_EQ(match[1], metric);
            EXPECT_FALSE(isTyped) << line;
            isTyped = true;
            EXPECT_EQ(std::regex_match(metric, kTotal), match[2] == "counter") << line;
            EXPECT_FALSE(std::regex_match(metric, kUnusual)) << line;
        } else if (std::regex_match(line, match, kSample)) {
            EXPECT_EQ(match[1], metric);
            EXPECT_TRUE(isTyped) << line;
            EXPECT_TRUE(
                samples.emplace(line.substr(0, line.rfind(' ')), std::stod(match[3])).second)
                << line;
            std::set<std::string> names;
            std::string labels = match[2];
            while (
                std::regex_search(labels, match, kLabel, std::regex_constants::match_continuous)) {
                EXPECT_TRUE(names.insert(match[1]).second) << line;
                labels = match.suffix();
            }
            EXPECT_EQ(labels, "") << line;
        } else {
            ADD_FAILURE() << line;
        }
    }
    EXPECT_TRUE(isTyped);
    return samples;
}

TEST_F(TheMetricsExample, ServesRegistrationsAndRequestsAsTextForPrometheus) {
    const std::chrono::duration<double> begin = std::chrono::system_clock::now().time_since_epoch();
    Example metrics("metrics", {"127.0.0.1", std::to_string(registry.port()), "0"});
    std::string url = metrics.awaitOutput("\n");
    url.pop_back();
    const std::string echo =
        R"({id="1",service="echo",uri="/echo/127.0.0.1:8080",registry="127.0.0.1:)" +
        std::to_string(registry.port()) + '"';
    const auto ask = [&url] { return ChildProcess("/usr/bin/curl", {"-sSi", url}).wait().output; };
    EXPECT_TRUE(
        eventually([&ask] { return ask().find("state=\"announced\"} 1") != std::string::npos; }));
    for (int i = 0; i < 2; ++i) {
        const std::string answer = ask();
        const auto endOfHeaders = answer.find("\r\n\r\n");
        EXPECT_EQ(answer.substr(0, endOfHeaders),
                  "HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8");
        auto samples = samplesOf(answer.substr(endOfHeaders + 4));
        for (const char* state :
             {"announcing", "announced", "unreachable", "lost", "withdrawing"}) {
            EXPECT_THAT(samples, Contains(Pair(
                                     "orvx_registration_state" + echo + ",state=\"" + state + "\"}",
                                     state == std::string("announced") ? 1 : 0)));
        }
        for (const char* time : {"state_start", "last_confirmed"}) {
            const std::string metric = std::string("orvx_registration_") + time;
            EXPECT_NEAR(samples[metric + "_timestamp_seconds" + echo + "}"], begin.count(), 60)
                << metric;
        }
        EXPECT_THAT(samples,
                    Contains(Pair("orvx_registration_attempts" + echo + "}", ::testing::_)));
        EXPECT_THAT(samples, Contains(Pair(R"(orvx_requests_total{method="PUT",status="OK"})", 1)));
        EXPECT_THAT(samples, Contains(Pair(R"(orvx_answers_total{method="PUT",code="201"})", 1)));
    }
    metrics.endInput();
    metrics.printed();
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheMetricsExample, ServesWhileTheRegistryIsAway) {
    const testing::RefusedPort refused;
    Example metrics("metrics", {"127.0.0.1", std::to_string(refused.port()), "0"});
    metrics.awaitErrors("CONNECT_FAILED");
    const auto begin = steady_clock::now();
    std::string url = metrics.awaitOutput("\n");
    EXPECT_LT(steady_clock::now() - begin, 10s) << "a blocking registration waits for 30 s";
    url.pop_back();
    EXPECT_THAT(ChildProcess("/usr/bin/curl", {"-sS", url}).wait().output,
                HasSubstr(R"(state="announcing"} 1)"));
    metrics.endInput();
    metrics.printed();
}

TEST(TheTextForPrometheus, HasLabelsThatHoldAnyText) {
    RegistrationStatus status;
    status.requestId = 7;
    status.name = "a\"b\\c\nd";
    status.uri = "/é{}=,";
    status.state = RegistrationStatus::State::Lost;
    RegistrationStatus::Failure failure;
    failure.time = std::chrono::system_clock::time_point(1500ms);
    status.lastFailure = failure;
    status.nextAttempt = failure.time;
    RegistrationStatus twin = status;
    twin.requestId = 8;
    PrometheusText metrics;
    metrics.add({status, twin});
    metrics.add(communication::ClientStatistics().snapshot());
    const auto samples = samplesOf(metrics.text());
    EXPECT_EQ(samples.size(), 2U * (5 + 1 + 3)) << "it was never confirmed";
    const std::string labels = R"({id="7",service="a\"b\\c\nd",uri="/é{}=,",registry="")";
    EXPECT_THAT(samples,
                Contains(Pair("orvx_registration_state" + labels + R"(,state="lost"})", 1)));
    for (const char* time : {"last_failure", "next_attempt"}) {
        EXPECT_THAT(samples, Contains(Pair(std::string("orvx_registration_") + time +
                                               "_timestamp_seconds" + labels + "}",
                                           1.5)));
    }
}

TEST_F(TheShutdownExample, WithdrawsEverythingWhenItIsTerminated) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Example shutdown("shutdown", registry.port());
        shutdown.awaitOutput("announced\n");
        EXPECT_EQ(entries().size(), 1U);
        shutdown.signal(signal);
        EXPECT_EQ(shutdown.printed(), "announced\nwithdrawn\n");
        EXPECT_TRUE(entries().empty());
    }
}

TEST_F(TheShutdownExample, WithdrawsARegistrationThatIsAnsweredAfterTheTermination) {
    front.onRequest([this](const Request& request) {
        const std::string answer = passOn(request, registry.port());
        return request.method == "PUT" ? Script().waitForRelease("PUT").send(answer)
                                       : Script(answer);
    });
    Example shutdown("shutdown", front.port());
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    shutdown.signal(SIGTERM);
    front.release("PUT");
    // Either the signal or the answer may come first.
    EXPECT_THAT(shutdown.printed(), AnyOf("nothing is left\n", "announced\nwithdrawn\n"));
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheShutdownExample, EndsWithAFailureWhenItIsRefused) {
    front.onRequest([](const Request&) { return testing::response(403); });
    EXPECT_EQ(Example("shutdown", front.port()).printed(1), "refused\n");
    EXPECT_EQ(front.requests().size(), 1U);
}

TEST_F(TheShutdownExample, HasNothingToWithdrawFromARegistryThatWasNeverReached) {
    const testing::RefusedPort refused;
    Example shutdown("shutdown", refused.port());
    shutdown.awaitErrors("CONNECT_FAILED");
    const auto begin = steady_clock::now();
    shutdown.signal(SIGTERM);
    EXPECT_EQ(shutdown.printed(), "nothing is left\n") << "and nothing was announced";
    EXPECT_LT(steady_clock::now() - begin, 4s) << "it may withdraw for five";
}

TEST_F(TheShutdownExample, LeavesWithinItsBoundAndWithFewLinesWhenTheRegistryIsSilent) {
    front.onRequest([this](const Request& request) {
        return request.method == "DELETE" ? Script().silence()
                                          : Script(passOn(request, registry.port()));
    });
    Example shutdown("shutdown", front.port());
    shutdown.awaitOutput("announced\n");
    const auto begin = steady_clock::now();
    shutdown.signal(SIGTERM);
    const auto result = shutdown.wait();
    EXPECT_EQ(result.output, "announced\nnot withdrawn\n");
    EXPECT_EQ(WEXITSTATUS(result.status), 1);
    EXPECT_LE(std::count(result.errors.begin(), result.errors.end(), '\n'), 10) << result.errors;
    EXPECT_LT(steady_clock::now() - begin, 12s) << "five seconds, not thirty as an answer may take";
}

TEST_F(TheExamples, PutEachEntryAtThePathOfItsInstance) {
    std::vector<std::string> targets;
    front.onRequest([this](const Request& request) { return passOn(request, registry.port()); });
    for (const std::string name :
         {"announce", "blocking", "collection", "many", "metrics", "shutdown"}) {
        std::vector<std::string> arguments{"127.0.0.1", std::to_string(front.port())};
        if (name == "many" || name == "metrics") {
            arguments.emplace_back(name == "many" ? "1" : "0");
        }
        const Example example(name, arguments);
        const auto known = targets.size();
        EXPECT_TRUE(eventually([&] {
            targets.clear();
            for (const Request& request : front.requests()) {
                if (request.method == "PUT") {
                    targets.push_back(request.target);
                }
            }
            return targets.size() > known;
        })) << name;
    }
    EXPECT_THAT(targets, Each(HasSubstr("/127.0.0.1:8080")));
}

TEST_F(TheExamples, NameTheErrorAndEndWithAFailureWhenTheyAreRefused) {
    front.onRequest([](const Request&) { return testing::response(403); });
    for (const std::string name : {"announce", "blocking", "collection", "many", "shutdown"}) {
        std::vector<std::string> arguments{"127.0.0.1", std::to_string(front.port())};
        if (name == "many") {
            arguments.emplace_back("2");
        }
        Example example(name, arguments);
        if (name == "announce") {
            example.awaitOutput("announced: SERVICE_REGISTRY_ERROR\n");
        }
        example.endInput();
        const auto result = example.wait();
        EXPECT_TRUE(WIFEXITED(result.status)) << name;
        EXPECT_EQ(WEXITSTATUS(result.status), 1) << name;
        EXPECT_THAT(result.output, Not(HasSubstr("withdrawn: OK"))) << name;
        if (name != "collection" && name != "shutdown") {
            EXPECT_THAT(result.output + result.errors, HasSubstr("SERVICE_REGISTRY_ERROR")) << name;
        }
    }
    for (const Request& request : front.requests()) {
        EXPECT_EQ(request.method, "PUT") << "there is nothing to withdraw";
    }
}

TEST_F(TheExamples, NameTheErrorAndEndWithAFailureForAHostThatIsAUrl) {
    for (const std::string name : {"blocking", "many"}) {
        std::vector<std::string> arguments{"https://x", "8500"};
        if (name == "many") {
            arguments.emplace_back("2");
        }
        const auto result = Example(name, arguments).wait();
        EXPECT_TRUE(WIFEXITED(result.status)) << name;
        EXPECT_EQ(WEXITSTATUS(result.status), 1) << name;
        EXPECT_THAT(result.output + result.errors, HasSubstr("SERVICE_REGISTRY_ERROR")) << name;
    }
}

TEST_F(TheExamples, PrintTheirUsageWithoutTheirArgumentsAndWithAnInvalidPort) {
    for (const std::string name :
         {"announce", "blocking", "collection", "many", "metrics", "shutdown"}) {
        std::vector<std::string> arguments{"127.0.0.1", "x"};
        if (name == "many" || name == "metrics") {
            arguments.emplace_back("1");
        }
        for (const auto& given : {std::vector<std::string>{}, arguments}) {
            const auto result = Example(name, given).wait();
            EXPECT_TRUE(WIFEXITED(result.status)) << name;
            EXPECT_EQ(WEXITSTATUS(result.status), 2) << name;
            EXPECT_THAT(result.output, IsEmpty()) << name;
            EXPECT_THAT(result.errors, ::testing::StartsWith("usage: " + name + " REGISTRY_HOST"));
        }
    }
}

/// The argument of this setter in a program; absent if the program does not call it.
std::optional<std::chrono::milliseconds> timeSetBy(const std::string& setter,
                                                   const std::string& program) {
    const std::regex call(setter + R"(\((?:std::chrono::)?(?:seconds\()?(\d+)(ms|s|\)))");
    std::smatch match;
    if (!std::regex_search(program, match, call)) {
        return std::nullopt;
    }
    return std::chrono::milliseconds(std::stoi(match[1]) * (match[2] == "ms" ? 1 : 1000));
}

// The time-out of a check would abandon a check that is outstanding when it passes, and end it for
// ever.
TEST_F(TheExamples, KeepTheHeadTimeoutBelowTheCheckInterval) {
    int count = 0;
    for (const auto& file : std::filesystem::recursive_directory_iterator(paths::kExampleSources)) {
        if (file.path().extension() == ".cpp") {
            std::ifstream stream(file.path());
            const std::string program{std::istreambuf_iterator<char>(stream), {}};
            const auto interval = timeSetBy("setCheckInterval", program);
            count += interval ? 1 : 0;
            EXPECT_LT(timeSetBy("setHeadTimeout", program).value_or(3s), interval.value_or(10s))
                << file;
        }
    }
    EXPECT_GE(count, 3);
}

TEST_F(TheExamples, FitOnOneScreenEach) {
    int count = 0;
    for (const auto& file : std::filesystem::directory_iterator(paths::kExampleSources)) {
        if (file.path().extension() == ".cpp") {
            std::ifstream stream(file.path());
            EXPECT_LE(std::count(std::istreambuf_iterator<char>(stream), {}, '\n'), 60) << file;
            ++count;
        }
    }
    EXPECT_EQ(count, 6);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
