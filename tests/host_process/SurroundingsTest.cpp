// The global state and the output of a process: the library does not change the state, and adds
// only the lines of its console logger to the output. Threads: the test's, the client's three, the
// registry's.

#include "IntegrationTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <locale>
#include <map>
#include <regex>
#include <sstream>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

using State = std::map<std::string, std::string>;

/// The global state of the process, as far as it can be read.
State stateOfTheProcess() {
    State state;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        state["environment"] += *variable + std::string("\n");
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    state["umask"] = std::to_string(mask);
    state["folder"] = std::filesystem::current_path();
    const std::time_t day = 0;
    state["time zone"] = std::asctime(std::localtime(&day));
    state["locale of C"] = std::setlocale(LC_ALL, nullptr);
    state["locale of C++"] = std::locale().name();
    return state;
}

/// The number of this process's sockets that accept connections or datagrams from any peer.
std::size_t listeningSockets() {
    std::string mine;
    for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code isGone;
        mine += std::filesystem::read_symlink(descriptor.path(), isGone).string() + "\n";
    }
    std::size_t listening = 0;
    for (const char* const table : {"tcp", "tcp6", "udp", "udp6"}) {
        std::ifstream file(std::string("/proc/self/net/") + table);
        std::string line;
        std::getline(file, line);
        while (std::getline(file, line)) {
            std::istringstream columns(line);
            std::string column[10];
            for (std::string& text : column) {
                columns >> text;
            }
            const bool isOpenToAll = column[3] == (table[0] == 't' ? "0A" : "07");
            const bool isMine = mine.find("socket:[" + column[9] + "]\n") != std::string::npos;
            listening += isOpenToAll && isMine ? 1 : 0;
        }
    }
    return listening;
}

class TheSurroundings : public IntegrationTest {
  protected:
    /// Runs each operation on a service.
    void live() {
        const testing::RefusedPort nobody;
        testing::HostileServer rude;
        context.setCheckInterval(0s);
        context.setInitialMaxRetryCount(1);
        context.setRetryInterval(1ms);
        context.setLogLevel(utility::ILogger::LogLevel::Debug);
        start();
        const auto withdraw = registered("lamp", registry.port());
        EXPECT_TRUE(eventually([&] { return entries().at(0).at("checks") > 1; }));
        const std::string target = "/" + entries().at(0).at("uuid").get<std::string>();
        registry.connect().ask(registry::makeRequest("DELETE", target));
        EXPECT_EQ(notifications.await(3).size(), 3U) << "registered, lost, registered";
        for (const auto port : {nobody.port(), rude.port()}) {
            client().registerServiceAtRegistry(at(port), service("door"), record());
        }
        EXPECT_THAT(outcomes.await(2), ::testing::Each("ERROR/SERVICE_REGISTRY_ERROR"));
        EXPECT_EQ(outcomeOf(withdraw), "OK/NONE");
        context.deinit();
    }
};

TEST_F(TheSurroundings, StayAsTheyAre) {
    ::setenv("TZ", "Asia/Kolkata", 1);
    ::tzset();
    std::setlocale(LC_ALL, "C.UTF-8");
    ::umask(027);
    std::filesystem::current_path("/");
    const State before = stateOfTheProcess();
    context.setLoggerFactory(nullptr);
    CaptureStderr();
    live();
    EXPECT_NE(GetCapturedStderr(), "");
    EXPECT_EQ(stateOfTheProcess(), before);
}

TEST_F(TheSurroundings, SeeNoPortThatListens) {
    const auto before = listeningSockets();
    ASSERT_EQ(before, 1U) << "the registry's";
    context.setCheckInterval(0s);
    start();
    registered("lamp", registry.port());
    for (int checks = 1; checks < 20; ++checks) {
        EXPECT_TRUE(eventually([&] { return entries().at(0).at("checks") >= checks; }));
        EXPECT_EQ(listeningSockets(), before);
    }
}

TEST_F(TheSurroundings, ReadNothingButTheLinesOfTheConsoleLogger) {
    context.setLoggerFactory(nullptr);
    CaptureStdout();
    CaptureStderr();
    live();
    EXPECT_EQ(GetCapturedStdout(), "");
    std::istringstream lines(GetCapturedStderr());
    const std::regex format(
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} (ERROR|WARNING|INFO|DEBUG) "
        "Orvx(ServiceRegistryClient|Communication)\\.\\w+: .+");
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_TRUE(std::regex_match(line, format)) << line;
    }
    EXPECT_GE(count, 5) << "lost, refused twice, retried, 500; a check that is due between the "
                           "withdrawal and the end may add one";
}

TEST_F(TheSurroundings, ReadNothingWhenTheUserHasALoggerOfItsOwn) {
    CaptureStdout();
    CaptureStderr();
    live();
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(TheSurroundings, GiveNoCredentialsToTheRegistry) {
    const std::string folder = ::testing::TempDir() + "orvx-home-" + std::to_string(::getpid());
    std::filesystem::create_directory(folder);
    std::ofstream(folder + "/.netrc") << "machine 127.0.0.1 login me password secret\n";
    std::ofstream(folder + "/.curlrc") << "user = me:secret\n";
    ::setenv("HOME", folder.c_str(), 1);
    ::setenv("CURL_HOME", folder.c_str(), 1);
    testing::HostileServer server;
    context.enableRetry(false);
    start();
    client().registerServiceAtRegistry(at(server.port()), service("lamp"), record());
    outcomes.await(1);
    EXPECT_EQ(server.requests().at(0).header("Authorization"), std::nullopt);
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
