// Services that are withdrawn while their health check fails. Entered by the test's thread and
// those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"

#include <algorithm>
#include <sstream>

namespace orvx::announce {
namespace {

class Health : public AnnounceTest {
  protected:
    /// A shell command that adds a line to the log and exits with the next digit of `codes`, which
    /// are used in turn.
    std::string endingWith(const std::string& codes) const {
        return "echo >>" + log + "; codes=" + codes + "; n=$(wc -l <" + log +
               "); exit $(expr substr $codes $((((n - 1) % ${#codes}) + 1)) 1)";
    }
    bool isLoggedTimes(std::size_t count) const {
        const std::string text = contentOf(log);
        return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) >= count;
    }
    /// The lines of the log, sorted.
    std::vector<std::string> logged() const {
        std::istringstream stream(contentOf(log));
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        std::sort(lines.begin(), lines.end());
        return lines;
    }
    /// Expects that an unhealthy service is not announced by a reload with these changes.
    void expectToStayWithdrawn(json description, const json& changes, const Words& health) {
        passOnInFront();
        const auto write = [&] {
            return folder.write("set.json", json::array({description}).dump());
        };
        Announce announce(Words{"--registry", urlOf(front.port()), "--from", write(), "--json",
                                "--health-interval", "3600", "--health-failures", "1"} +
                          health);
        announce.awaitOutput("\"unhealthy\"");
        announce.awaitOutput("\"withdrawn\"");
        description.update(changes);
        write();
        announce.signal(SIGHUP);
        announce.awaitOutput("\"reloaded\"");
        announce.signal(SIGUSR1);
        announce.awaitOutput("\"unhealthy\":");
        announce.stopped(0);
        const auto requests = front.requests();
        EXPECT_EQ(std::count_if(requests.begin(), requests.end(),
                                [](const Request& request) { return request.method == "PUT"; }),
                  1);
    }

    const Folder folder;
    const std::string log = folder.file("log");
};

const Words kOften{"--health-interval", "0.02"};
const Words kAtOnce = kOften + Words{"--health-failures", "1", "--health-successes", "1"};

TEST_F(Health, WithdrawsAServiceWhosePortTakesNoConnectionsUntilItDoesAgain) {
    Announce announce(echo() + kAtOnce + Words{"--health-tcp", "--json"});
    announce.awaitOutput("\"announced\"");
    service.stopListening();
    announce.awaitOutput("\"withdrawn\"");
    EXPECT_THAT(entries(), IsEmpty());
    service.listenAgain();
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    const auto lines = linesOf(announce.stopped(0).output);
    EXPECT_THAT(eventsOf(lines),
                ::testing::MatchesRegex("announcing announced unhealthy withdrawing withdrawn "
                                        "healthy announcing (announced )?stopping withdrawing "
                                        "withdrawn "));
    EXPECT_EQ(lines.at(2).at("reason"), "takes no connection");
    EXPECT_EQ(lines.at(2).at("service"), "echo");
}

TEST_F(Health, MayBeThatAPathIsAnswered) {
    service.onRequest([](const Request&) { return testing::response(204); });
    Announce announce(echo() + kAtOnce + Words{"--health-http", "/health"});
    announce.awaitOutput(" announced ");
    ASSERT_TRUE(service.waitForRequests(2));
    EXPECT_EQ(service.requests().at(0).target, "/health");
    service.onRequest([](const Request&) { return testing::response(503); });
    announce.awaitOutput(" unhealthy reason=\"no answer with a status from 200 to 399\" ");
    announce.awaitOutput(" withdrawn ");
    announce.stopped(0);
}

TEST_F(Health, MayBeThatACommandSucceeds) {
    Announce announce(echo() + kAtOnce +
                      Words{"--health-command", "echo $1 $2 $3 >>" + log + "; exit 7"});
    announce.awaitOutput(" unhealthy reason=\"exit status 7\" ");
    announce.stopped(0);
    EXPECT_EQ(logged().at(0), "echo 127.0.0.1 " + std::to_string(service.port()));
}

TEST_F(Health, FailsWhenItsAnswerDoesNotComeInTime) {
    Announce announce(echo() + kAtOnce +
                      Words{"--health-timeout", "0.1", "--health-command", "sleep 60 & wait"});
    announce.awaitOutput(" unhealthy reason=\"no answer in time\" ");
    announce.stopped(0);  // detected when no process has its outputs open any more
}

TEST_F(Health, FailsWhenNoAttemptCanBeStarted) {
    const Words options =
        Words{"--registry", urlOf(registry.port()), "--from", writeUnprobable(folder)} + kAtOnce;
    Announce shell(options + Words{"--health-command", "true"});
    shell.awaitOutput(" unhealthy reason=\"/bin/sh: Argument list too long\" ");
    shell.stopped(0);
    Announce itself(options + Words{"--health-tcp"});
    itself.awaitOutput(" unhealthy reason=\"/proc/self/exe: Argument list too long\" ");
    itself.stopped(0);
}

TEST_F(Health, LeavesNoAttemptWhenTheProgramEnds) {
    Announce announce(echo() + Words{"--health-command", "echo asked >&2; sleep 60 & wait"});
    announce.awaitErrors("asked\n");
    announce.stopped(0);  // detected when no process has its outputs open any more
}

TEST_F(Health, IsNotLostByFewerFailuresInARowThanItsBound) {
    Announce announce(echo() + kOften +
                      Words{"--health-failures", "3", "--health-command", endingWith("110")});
    EXPECT_TRUE(eventually([this] { return isLoggedTimes(9); }));
    EXPECT_THAT(announce.stopped(0).output, Not(HasSubstr(" unhealthy ")));
}

TEST_F(Health, IsNotRegainedByFewerSuccessesInARowThanItsBound) {
    Announce announce(echo() + kOften +
                      Words{"--health-failures", "1", "--health-successes", "2", "--health-command",
                            endingWith("10")});
    announce.awaitOutput(" unhealthy ");
    EXPECT_TRUE(eventually([this] { return isLoggedTimes(9); }));
    EXPECT_THAT(announce.stopped(0).output, Not(HasSubstr(" healthy ")));
}

TEST_F(Health, ThatIsLostLeavesTheCommandAlone) {
    Announce announce(echo() + kAtOnce + Words{"--health-command", "exit 1"} + command({"3"}));
    announce.awaitErrors(" withdrawn ");
    announce.awaitOutput("up\n");
    EXPECT_EQ(announce.stopped(3).output, "up\ngot SIGTERM\n");
}

TEST_F(Health, ThatIsRegainedDuringTheWithdrawalIsAnnouncedAfterIt) {
    holdBack("DELETE");
    Announce announce(echo(front.port()) + kAtOnce +
                      Words{"--health-tcp", "--withdraw-timeout", "0.1", "--json"});
    announce.awaitOutput("\"announced\"");
    service.stopListening();
    announce.awaitOutput("\"unhealthy\"");
    ASSERT_TRUE(front.waitForRequests(2));
    service.listenAgain();
    announce.awaitOutput("\"healthy\"");
    passOnInFront();
    front.release("DELETE");
    announce.awaitOutput("\"withdrawn\"");
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    EXPECT_THAT(eventsOf(linesOf(announce.stopped(0).output)),
                ::testing::MatchesRegex("announcing announced unhealthy withdrawing healthy "
                                        "withdrawn announcing (announced )?stopping withdrawing "
                                        "withdrawn "));
}

TEST_F(Health, ThatIsLostIsNotOverriddenByAHangUp) {
    Announce announce(echo() + kAtOnce + Words{"--health-tcp", "--json"});
    announce.awaitOutput("\"announced\"");
    service.stopListening();
    announce.awaitOutput("\"withdrawn\"");
    announce.signal(SIGHUP);
    announce.signal(SIGUSR1);
    announce.awaitOutput("\"unhealthy\":\"takes no connection\"");
    EXPECT_EQ(eventsOf(linesOf(announce.stopped(0).output)),
              "announcing announced unhealthy withdrawing withdrawn status status stopping ");
}

TEST_F(Health, ThatIsLostIsNotOverriddenByAReloadOfTheDescription) {
    const json lamp{{"name", "lamp"}, {"port", service.port()}, {"description", "a"}};
    expectToStayWithdrawn(lamp, {{"description", "b"}}, {"--health-command", "exit 7"});
}

TEST_F(Health, ThatIsLostIsNotOverriddenByAReloadOfANameThatTheProbeDoesNotUse) {
    const testing::RefusedPort refused;
    const json lamp{{"name", "lamp"}, {"port", refused.port()}, {"uri", "/lamp"}};
    expectToStayWithdrawn(lamp, {{"name", "light"}}, {"--health-tcp"});
}

TEST_F(Health, ThatIsLostIsNotOverriddenByAReloadOfAHostThatIsNotProbed) {
    const testing::RefusedPort refused;
    const json lamp{
        {"name", "lamp"}, {"port", refused.port()}, {"uri", "/lamp"}, {"host", "a.test"}};
    expectToStayWithdrawn(lamp, {{"host", "b.test"}},
                          {"--health-tcp", "--ready-host", "127.0.0.1"});
}

TEST_F(Health, ThatIsLostIsAskedForAgainAfterAReloadOfThePort) {
    const testing::RefusedPort refused;
    json lamp{{"name", "lamp"}, {"port", refused.port()}, {"uri", "/lamp"}};
    const auto write = [&] { return folder.write("set.json", json::array({lamp}).dump()); };
    Announce announce(Words{"--registry", urlOf(registry.port()), "--from", write(), "--health-tcp",
                            "--health-interval", "3600", "--health-failures", "1"});
    announce.awaitOutput(" withdrawn ");
    lamp["port"] = service.port();
    write();
    announce.signal(SIGHUP);
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    announce.stopped(0);
}

TEST_F(Health, OfOneServiceConcernsNoOther) {
    const HostileServer other;
    const json set{{{"name", "a"}, {"port", other.port()}},
                   {{"name", "b"}, {"port", service.port()}}};
    Announce announce(Words{"--registry", urlOf(registry.port()), "--health-tcp", "--from",
                            folder.write("set.json", set.dump())} +
                      kAtOnce);
    EXPECT_TRUE(eventually([this] { return entries().size() == 2; }));
    service.stopListening();
    announce.awaitOutput(" withdrawn service=b");
    ASSERT_EQ(entries().size(), 1U);
    EXPECT_EQ(entries().at(0).at("service").at("name"), "a");
    EXPECT_THAT(announce.stopped(0).output,
                Not(HasSubstr(" unhealthy reason=\"takes no connection\" service=a")));
}

TEST_F(Health, OfAServiceIsNotAskedForWhileItsRemovalWaitsForTheRegistry) {
    json set = json::array();
    for (const char* name : {"gone", "same"}) {
        set.push_back({{"name", name}, {"port", 1}});
    }
    const auto write = [&] { return folder.write("set.json", set.dump()); };
    const auto asked = [this](const std::string& name) {
        const auto lines = logged();
        return std::count(lines.begin(), lines.end(), name);
    };
    passOnInFront();
    Announce announce(Words{"--registry", urlOf(front.port()), "--from", write(),
                            "--health-command", "echo $1 >>" + log, "--withdraw-timeout", "0.1"} +
                      kOften);
    EXPECT_TRUE(eventually([&] { return entries().size() == 2 && asked("gone") > 0; }));
    holdBack("DELETE");
    set.erase(0);
    write();
    announce.signal(SIGHUP);
    announce.awaitOutput(" reloaded ");
    const auto before = asked("gone");
    const auto others = asked("same");
    EXPECT_TRUE(eventually([&] { return asked("same") >= others + 10; }));
    EXPECT_LE(asked("gone"), before + 1) << "an attempt may have been under way";
    announce.stopped(1);
}

TEST_F(Health, OfManyServicesIsAskedForAllOverTheInterval) {
    json set = json::array();
    for (int i = 0; i < 20; ++i) {
        set.push_back({{"name", "lamp" + std::to_string(i)}, {"port", 8000 + i}});
    }
    Announce announce({"--registry", urlOf(registry.port()), "--from",
                       folder.write("set.json", set.dump()), "--health-interval", "2",
                       "--health-command", "date +%s%3N >>" + log});
    EXPECT_TRUE(eventually([this] { return isLoggedTimes(20); }));
    const auto times = logged();
    EXPECT_GE(std::stoll(times.at(19)) - std::stoll(times.at(0)), 1000);  // 1900 without delays
    announce.stopped(0);
}

}  // namespace
}  // namespace orvx::announce
