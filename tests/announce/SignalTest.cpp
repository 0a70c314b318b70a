// Signals to the program, and the signals that it sends to its command. Entered by the test's
// thread and those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"
#include "Terminal.h"

namespace orvx::announce {
namespace {

class ASignal : public AnnounceTest {
  protected:
    /// Starts the program with a command that exits with 3, and waits for the announcement.
    std::unique_ptr<Announce> announced(const Words& options = {},
                                        const Words& rest = {"3"}) const {
        auto announce = std::make_unique<Announce>(echo() + options + command(rest));
        announce->awaitErrors(" announced ");
        announce->awaitOutput("up\n");
        return announce;
    }
    /// A script that prints "up-now" and waits for the signal, which ends it with 7. The text does
    /// not occur in the script, which orvx-announce reports.
    static std::string endedBy(const std::string& signal) {
        return "trap 'kill $!; exit 7' " + signal + "; sleep 60 & printf '%s-now\\n' up; wait";
    }
    static Words inAGroupOfItsOwn(const std::string& signal) {
        return {"--", "setsid", "/bin/sh", "-c", endedBy(signal)};
    }
};

TEST_F(ASignal, ToTerminateReachesTheCommandWhenItIsWithdrawn) {
    const auto announce = announced({}, {"3", urlOf(registry.port())});
    EXPECT_EQ(entries().size(), 1U);
    EXPECT_EQ(announce->stopped(3).output, "up\ngot SIGTERM, entries: 0\n");
}

TEST_F(ASignal, ToInterruptOrQuitReachesTheCommandWhenItIsWithdrawn) {
    for (const auto& [number, name] : {std::pair{SIGINT, "SIGINT"}, {SIGQUIT, "SIGQUIT"}}) {
        const auto announce = announced({}, {"3", urlOf(registry.port())});
        announce->signal(number);
        announce->awaitOutput(std::string("got ") + name + ", entries: 0\n");
        announce->stopped(3);
    }
}

TEST_F(ASignal, ToReloadReachesTheCommandAndWithdrawsNothing) {
    const auto announce = announced({}, {"3", urlOf(registry.port())});
    announce->signal(SIGHUP);
    announce->awaitOutput("got SIGHUP, entries: 1\n");
    announce->signal(SIGUSR2);
    announce->awaitOutput("got SIGUSR2, entries: 1\n");
    announce->stopped(3);
}

TEST_F(ASignal, ThatAsksForTheStatusIsNotForTheCommand) {
    const auto announce = announced();
    announce->signal(SIGUSR1);
    announce->awaitErrors(" status ");
    EXPECT_EQ(announce->stopped(3).output, "up\ngot SIGTERM\n");
}

TEST_F(ASignal, ThatIsRepeatedEndsTheWaitingForTheRegistry) {
    holdBack("DELETE");
    Announce announce(echo(front.port()) + Words{"--withdraw-timeout", "3600"} + command({"3"}));
    announce.awaitErrors(" announced ");
    announce.awaitOutput("up\n");
    announce.signal(SIGTERM);
    ASSERT_TRUE(front.waitFor([](const auto& counters) { return counters.requests >= 2; }));
    announce.awaitErrors(" withdrawing ");
    EXPECT_THAT(announce.stopped(3).errors, HasSubstr(" left "));
}

TEST_F(ASignal, ThatTheCommandOutlivesIsFollowedByItsEnd) {
    const auto announce = announced({"--stop-timeout", "0.2"}, {"never"});
    const auto result = announce->stopped(128 + SIGKILL);
    EXPECT_EQ(result.output, "up\ngot SIGTERM\n");
    EXPECT_THAT(result.errors, HasSubstr(" killing "));
    EXPECT_TRUE(entries().empty());
}

TEST_F(ASignal, ThatFollowsTheFirstOneReachesACommandThatIsEnding) {
    const auto announce = announced({"--stop-timeout", "3600"}, {"never"});
    announce->signal(SIGTERM);
    announce->awaitOutput("got SIGTERM\n");
    announce->signal(SIGTERM);
    announce->awaitOutput("got SIGTERM\ngot SIGTERM\n");
    announce->signal(SIGUSR2);
    announce->awaitOutput("got SIGUSR2\n");
}

TEST_F(ASignal, FromTheTerminalReachesTheCommandOnceAndWithdrawsIt) {
    Terminal terminal(Words{paths::kAnnounceProgram, "--stop-timeout", "0.2"} + echo() +
                      command({"never"}));
    terminal.await("announced\x1b[0m service=echo");
    terminal.await("up");
    terminal.type("\x03");
    terminal.await("killing");
    EXPECT_EQ(terminal.wait(), 128 + SIGKILL);
    const std::string text = terminal.text();
    const auto first = text.find("got SIGINT");
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(text.find("got SIGINT", first + 1), std::string::npos);
    EXPECT_THAT(text, Not(HasSubstr("got SIGTERM")));
    EXPECT_TRUE(entries().empty());
}

TEST_F(ASignal, FromTheTerminalIsForwardedToACommandWithAProcessGroupOfItsOwn) {
    Terminal terminal(Words{paths::kAnnounceProgram, "--stop-timeout", "3600"} + echo() +
                      inAGroupOfItsOwn("INT"));
    terminal.await("announced\x1b[0m service=echo");
    terminal.await("up-now");
    terminal.type("\x03");
    EXPECT_EQ(terminal.wait(), 7);
    EXPECT_TRUE(entries().empty());
}

TEST_F(ASignal, FromATerminalThatHangsUpEndsACommandWithAProcessGroupOfItsOwn) {
    Terminal terminal(Words{paths::kAnnounceProgram, "--stop-timeout", "3600"} + echo() +
                      inAGroupOfItsOwn("HUP"));
    terminal.await("announced\x1b[0m service=echo");
    terminal.await("up-now");
    EXPECT_EQ(terminal.hangUp(), 7);
    EXPECT_TRUE(entries().empty());
}

TEST_F(ASignal, FromATerminalThatHangsUpEndsTheCommandOfTheLeaderOfTheSession) {
    Terminal terminal(Words{paths::kAnnounceProgram, "--stop-timeout", "3600"} + echo() +
                      shell(endedBy("HUP")));
    terminal.await("announced\x1b[0m service=echo");
    terminal.await("up-now");
    EXPECT_EQ(terminal.hangUp(), 7);
    EXPECT_TRUE(entries().empty());
}

TEST_F(ASignal, ThatTheStarterIgnoresIsIgnored) {
    for (const std::string name : {"HUP", "TERM"}) {
        ChildProcess announce(
            "/bin/sh",
            Words{"-c", "trap '' " + name + "; exec \"$0\" \"$@\"", paths::kAnnounceProgram} +
                echo() + shell("kill -" + name + " $$ $PPID; read line; exit 8"));
        announce.awaitErrors(" announced ");
        announce.endInput();
        const auto result = announce.wait();
        EXPECT_EQ(exitCode(result), 8);
        EXPECT_THAT(result.errors, Not(HasSubstr(" stopping "))) << name;
    }
}

TEST_F(ASignal, WithoutACommandEndsTheAnnouncement) {
    for (const int number : {SIGTERM, SIGINT, SIGQUIT}) {
        Announce announce(echo());
        announce.awaitOutput(" announced ");
        EXPECT_THAT(announce.stopped(0, number).output, HasSubstr(" withdrawn "));
        EXPECT_TRUE(entries().empty());
    }
}

}  // namespace
}  // namespace orvx::announce
