// orvx-registry as a service of systemd: its notifications and its unit. Entered by the test's
// thread; the program is a process. No lock.
#include "Folder.h"
#include "Notifications.h"
#include "Paths.h"
#include "RawConnection.h"
#include "RegistryProcess.h"
#include "TokenLine.h"

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

namespace orvx::registry {
namespace {

using testing::contentOf;
using testing::Folder;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using testing::Notifications;

const std::string kUnit = std::string(paths::kRegistryService) + "/orvx-registry.service";

TEST(TheRegistryService, NotifiesReadinessReloadsAndItsEnd) {
    const Folder folder;
    const Notifications told(folder.file("notify"));
    ChildProcess registry("/usr/bin/env", {"NOTIFY_SOCKET=" + folder.file("notify"),
                                           RegistryProcess::path(), "--port", "0"});
    EXPECT_THAT(told.next(), MatchesRegex("READY=1\nSTATUS=listening on http://127.0.0.1:[0-9]+"));
    registry.signal(SIGHUP);
    EXPECT_EQ(told.next(), "RELOADING=1");
    EXPECT_EQ(told.next(), "READY=1");
    registry.awaitOutput("has read its files again\n");
    registry.signal(SIGTERM);
    EXPECT_EQ(told.next(), "STOPPING=1");
    EXPECT_EQ(registry.wait().status, 0);
}

TEST(TheRegistryService, NotifiesReadinessLaterIfTheQueueIsFull) {
    const Folder folder;
    const Notifications told(folder.file("notify"));
    told.fillQueue();
    ChildProcess registry("/usr/bin/env", {"NOTIFY_SOCKET=" + folder.file("notify"),
                                           RegistryProcess::path(), "--port", "0"});
    const std::string line = registry.awaitOutput("\n");
    const std::string url = line.substr(line.find("http"), line.find('\n') - line.find("http"));
    const auto port = static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
    EXPECT_EQ(RawConnection(port).ask("GET / HTTP/1.1\r\n\r\n").result_int(), 200U);
    told.await("READY=1\nSTATUS=listening on " + url);
    registry.signal(SIGTERM);
    EXPECT_EQ(told.next(), "STOPPING=1");
    EXPECT_EQ(registry.wait().status, 0);
}

TEST(TheRegistryService, IsReadyAgainOnlyWhenItHasReadItsFiles) {
    const Folder folder;
    const Notifications told(folder.file("notify"));
    const std::string tokens = folder.file("tokens");
    const auto giveReadAccessTo = [&](const std::string& token) {
        std::ofstream(folder.file("new")) << tokenLine(token, R"("read":true)");
        std::filesystem::rename(folder.file("new"), tokens);
    };
    giveReadAccessTo("first");
    ChildProcess registry("/usr/bin/env",
                          {"NOTIFY_SOCKET=" + folder.file("notify"), RegistryProcess::path(),
                           "--port", "0", "--tokens", tokens});
    const std::string listening = told.next();
    const int port = std::stoi(listening.substr(listening.rfind(':') + 1));
    for (int round = 0; round < 20; ++round) {
        const std::string token = "token" + std::to_string(round);
        giveReadAccessTo(token);
        registry.signal(SIGHUP);
        EXPECT_EQ(told.next(), "RELOADING=1");
        EXPECT_EQ(told.next(), "READY=1");
        giveReadAccessTo("first");  // comes too late
        const std::string request =
            "GET / HTTP/1.1\r\nAuthorization: Bearer " + token + "-secret\r\n\r\n";
        EXPECT_EQ(RawConnection(static_cast<std::uint16_t>(port)).ask(request).result_int(), 200U)
            << round;
    }
}

TEST(TheRegistryService, IsNotReadyBeforeAReplicaKnowsTheEntries) {
    const Folder folder;
    const Notifications told(folder.file("notify"));
    ChildProcess registry("/usr/bin/env",
                          {"NOTIFY_SOCKET=" + folder.file("notify"), RegistryProcess::path(),
                           "--port", "0", "--etcd", "http://127.0.0.1:1"});
    EXPECT_EQ(told.next(), "STATUS=waiting for etcd");
    registry.signal(SIGHUP);
    EXPECT_EQ(told.next(), "RELOADING=1");
    registry.awaitOutput("has read its files again\n");
    registry.signal(SIGTERM);
    EXPECT_EQ(told.next(), "STOPPING=1");
    EXPECT_EQ(registry.wait().status, 0);
}

TEST(TheRegistryService, IsNotReadyWhenItCannotListen) {
    const Folder folder;
    const Notifications told(folder.file("notify"));
    RegistryProcess other({"--port", "0"});
    const auto result = ChildProcess("/usr/bin/env", {"NOTIFY_SOCKET=" + folder.file("notify"),
                                                      RegistryProcess::path(), "--port",
                                                      std::to_string(other.port())})
                            .wait();
    EXPECT_EQ(WEXITSTATUS(result.status), 125);
    EXPECT_FALSE(told.within(std::chrono::milliseconds(0)));
}

// Before, the file had the number of a closed stream, and received the program's lines.
TEST(TheRegistryService, WritesOnlyChangesToItsAuditLogWhileStandardStreamsAreClosed) {
    for (const std::string closed : {">&- 2>&-", "<&- >&- 2>&-"}) {
        const Folder folder;
        const Notifications told(folder.file("notify"));
        const std::string valid = tokenLine("me", R"("read":true)");
        const std::string tokens = folder.write("tokens", valid);
        ChildProcess registry(
            "/bin/sh", {"-c", "exec \"$0\" \"$@\" " + closed, "/usr/bin/env",
                        "NOTIFY_SOCKET=" + folder.file("notify"), RegistryProcess::path(), "--port",
                        "0", "--tokens", tokens, "--audit", folder.file("audit")});
        told.next();
        for (const std::string& text : {std::string("invalid\n"), valid}) {
            folder.write("tokens", text);
            registry.signal(SIGHUP);
            told.await("READY=1");
        }
        registry.signal(SIGTERM);
        EXPECT_EQ(registry.wait().status, 0);
        std::istringstream audit(contentOf(folder.file("audit")));
        int lines = 0;
        for (std::string line; std::getline(audit, line); ++lines) {
            EXPECT_TRUE(nlohmann::json::accept(line)) << line;
        }
        EXPECT_EQ(lines, 1);
    }
}

class TheUnitOfTheRegistry : public ::testing::Test {
  protected:
    /// The unit in the folder, with the program of this build.
    std::string unit() const {
        std::string text = contentOf(kUnit);
        replace(text, "/usr/bin/orvx-registry", RegistryProcess::path());
        return folder.write("orvx-registry.service", text);
    }
    static void replace(std::string& text, const std::string& from, const std::string& to) {
        ASSERT_NE(text.find(from), std::string::npos) << from;
        text.replace(text.find(from), from.size(), to);
    }
    static ChildProcess::Result analyze(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "systemd-analyze");
        return ChildProcess("/usr/bin/env", arguments).wait();
    }

    const Folder folder;
};

TEST_F(TheUnitOfTheRegistry, IsUnderstoodBySystemd) {
    const auto result = analyze({"verify", "--man=no", unit()});
    EXPECT_EQ(WEXITSTATUS(result.status), 0) << result.errors;
    EXPECT_THAT(result.errors, Not(HasSubstr("orvx-registry")));
}

TEST_F(TheUnitOfTheRegistry, IsHardened) {
    const auto result =
        analyze({"security", "--offline=yes", "--threshold=16", "--no-pager", unit()});
    EXPECT_EQ(WEXITSTATUS(result.status), 0) << result.output << result.errors;
}

TEST_F(TheUnitOfTheRegistry, StartsTheProgramWithTheOptionsOfItsFile) {
    const std::string options = contentOf(std::string(paths::kRegistryService) + "/default");
    const std::string script = options + "exec \"$0\" $ORVX_REGISTRY_OPTIONS --port 0";
    const std::string store = folder.file("entries");
    std::string here = script;
    replace(here, "--store /var/lib/orvx-registry/entries", "--store " + store);
    ChildProcess registry("/bin/sh", {"-c", here, RegistryProcess::path()});
    registry.awaitOutput("listening on ");
    EXPECT_TRUE(std::ifstream(store).good());
    EXPECT_THAT(contentOf(kUnit), HasSubstr("\nEnvironmentFile=-/etc/default/orvx-registry\n"));
}

}  // namespace
}  // namespace orvx::registry
