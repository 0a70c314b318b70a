// The notifications to a service manager, and the example of a unit file. Entered by the test's
// thread and those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Notifications.h"
#include "Paths.h"

#include <unistd.h>

#include <set>

namespace orvx::announce {
namespace {

using testing::Notifications;

class TheServiceManager : public AnnounceTest {
  protected:
    /// The program as a service manager starts it.
    static Words started(const Words& variables, const Words& rest) {
        return variables + Words{paths::kAnnounceProgram} + rest;
    }

    const Folder folder;
};

TEST_F(TheServiceManager, HearsOfReadinessStateAndEnd) {
    for (const std::string& name :
         {folder.file("notify"), "@orvx-announce-test-" + std::to_string(::getpid())}) {
        const Notifications told(name);
        service.stopListening();
        ChildProcess announce("/usr/bin/env",
                              started({"NOTIFY_SOCKET=" + name}, echo() + command({"3"})));
        EXPECT_EQ(told.next(), "STATUS=0 of 1 announced");
        announce.awaitOutput("up\n");
        service.listenAgain();
        EXPECT_EQ(told.next(), "READY=1");
        EXPECT_EQ(told.next(), "STATUS=1 of 1 announced");
        announce.signal(SIGTERM);
        EXPECT_EQ(told.next(), "STOPPING=1");
        told.await("STATUS=0 of 1 announced");
        EXPECT_EQ(exitCode(announce.wait()), 3);
    }
}

TEST_F(TheServiceManager, HearsOfReadinessAndStateLaterIfItsQueueIsFull) {
    const Notifications told(folder.file("notify"));
    told.fillQueue();
    ChildProcess announce("/usr/bin/env",
                          started({"NOTIFY_SOCKET=" + folder.file("notify")}, echo()));
    announce.awaitOutput(" announced ");
    std::set<std::string> missing{"READY=1", "STATUS=1 of 1 announced"};
    while (!missing.empty()) {
        missing.erase(told.next());
    }
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
}

TEST_F(TheServiceManager, NeedNotWaitForTheRegistry) {
    const Notifications told(folder.file("notify"));
    const testing::RefusedPort refused;
    ChildProcess announce(
        "/usr/bin/env", started({"NOTIFY_SOCKET=" + folder.file("notify")}, echo(refused.port())));
    told.await("READY=1");
}

TEST_F(TheServiceManager, GetsRegularSignsOfLifeIfItRequestsThem) {
    const Notifications told(folder.file("notify"));
    const Words variables{"NOTIFY_SOCKET=" + folder.file("notify"), "WATCHDOG_USEC=20000"};
    ChildProcess announce("/usr/bin/env", started(variables, echo()));
    for (int i = 0; i < 5; ++i) {
        told.await("WATCHDOG=1");
    }
    announce.signal(SIGSTOP);
    announce.signal(SIGCONT);
    told.await("WATCHDOG=1");
}

TEST_F(TheServiceManager, MayWantASignOfLifeLaterThanTheClockCounts) {
    const Notifications told(folder.file("notify"));
    const Words variables{"NOTIFY_SOCKET=" + folder.file("notify"),
                          "WATCHDOG_USEC=9223372036854775807"};
    ChildProcess announce("/usr/bin/env", started(variables, echo()));
    announce.awaitOutput(" announced ");
    std::string heard;
    for (std::string one; one != "STATUS=1 of 1 announced"; heard += one + "\n") {
        one = told.next();
    }
    EXPECT_EQ(heard.find("WATCHDOG=1"), heard.rfind("WATCHDOG=1"));
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
}

TEST_F(TheServiceManager, GetsNoSignOfLifeForAnotherProcess) {
    const Notifications told(folder.file("notify"));
    const Words variables{"NOTIFY_SOCKET=" + folder.file("notify"), "WATCHDOG_USEC=20000",
                          "WATCHDOG_PID=1"};
    ChildProcess announce("/usr/bin/env", started(variables, echo()));
    std::string heard;
    for (std::string one; one != "STATUS=1 of 1 announced"; heard += one) {
        one = told.next();
    }
    EXPECT_THAT(heard, Not(HasSubstr("WATCHDOG")));
}

TEST_F(TheServiceManager, IsNotForTheCommand) {
    const Words variables{"NOTIFY_SOCKET=/none", "WATCHDOG_USEC=1", "WATCHDOG_PID=1", "MINE=yes"};
    const auto result =
        ChildProcess("/usr/bin/env", started(variables, echo() + Words{"--", "/usr/bin/env"}))
            .wait();
    EXPECT_THAT(result.output, AllOf(HasSubstr("MINE=yes\n"), Not(HasSubstr("NOTIFY_SOCKET")),
                                     Not(HasSubstr("WATCHDOG"))));
}

TEST_F(TheServiceManager, UnderstandsTheUnitFile) {
    std::string unit =
        contentOf(std::string(paths::kAnnounceSources) + "/orvx-announce-example.service");
    for (const auto& [installed, built] :
         {std::pair<std::string, std::string>{"/usr/bin/orvx-announce", paths::kAnnounceProgram},
          {"/usr/local/bin/echo-server", "/bin/true"}}) {
        ASSERT_NE(unit.find(installed), std::string::npos);
        unit.replace(unit.find(installed), installed.size(), built);
    }
    const auto file = folder.write("orvx-announce-example.service", unit);
    const auto result =
        ChildProcess("/usr/bin/env", {"systemd-analyze", "verify", "--man=no", file}).wait();
    EXPECT_EQ(exitCode(result), 0) << result.errors;
    EXPECT_THAT(result.errors, Not(HasSubstr("orvx-announce-example")));
}

}  // namespace
}  // namespace orvx::announce
