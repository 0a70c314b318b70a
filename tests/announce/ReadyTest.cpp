// From the start of the command to its announcement.
// Entered by the test's thread and those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"

namespace orvx::announce {
namespace {

class Readiness : public AnnounceTest {
  protected:
    Readiness() { service.stopListening(); }

    /// Ends the command, and expects its exit code.
    static void end(Announce& announce) {
        announce.endInput();
        announce.ended(1);  // the status of read at the end of its input
    }
};

const Words kWaiting = shell("read line");

TEST_F(Readiness, IsThatItsPortTakesConnections) {
    Announce announce(echo() + kWaiting);
    announce.awaitErrors(" started ");
    EXPECT_TRUE(entries().empty());
    service.listenAgain();
    announce.awaitErrors(" announced ");
    EXPECT_EQ(entries().size(), 1U);
    end(announce);
}

TEST_F(Readiness, MayBeThatAPathIsAnswered) {
    service.nextRequest(testing::response(503));
    service.nextRequest(Script("garbage").close());
    service.nextRequest(Script().close());
    service.nextRequest(Script().waitForRelease("ready").send(testing::response(204)));
    service.listenAgain();
    Announce announce(echo() + Words{"--ready-http", "/health?now"} + kWaiting);
    ASSERT_TRUE(service.waitForRequests(4));
    EXPECT_TRUE(entries().empty());
    service.release("ready");
    announce.awaitErrors(" announced ");
    EXPECT_EQ(service.requests().at(0).target, "/health?now");
    EXPECT_EQ(service.requests().at(0).header("Host"),
              "127.0.0.1:" + std::to_string(service.port()));
    end(announce);
}

TEST_F(Readiness, MayBeThatACommandSucceeds) {
    const Folder folder;
    const auto file = folder.file("ready");
    Announce announce(echo() + Words{"--ready-command", "echo asked; test -e " + file} + kWaiting);
    announce.awaitErrors("asked\n");
    EXPECT_TRUE(entries().empty());
    folder.write("ready", "");
    announce.awaitErrors(" announced ");
    EXPECT_EQ(entries().size(), 1U);
    end(announce);
}

TEST_F(Readiness, MayBeTakenForGranted) {
    Announce announce(echo() + Words{"--ready", "none"} + kWaiting);
    announce.awaitErrors(" announced ");
    end(announce);
}

TEST_F(Readiness, MayBeSeenAtAnotherAddress) {
    service.listenAgain();
    Announce announce(
        echo() + Words{"--host", "no.such.host.invalid", "--ready-host", "127.0.0.1"} + kWaiting);
    announce.awaitErrors(" announced ");
    EXPECT_EQ(entries().at(0).at("service").at("host"), "no.such.host.invalid");
    end(announce);
}

TEST_F(Readiness, AsksAnIpv6AddressInBrackets) {
    service.nextRequest(testing::response(204));
    service.listenAgain();
    Announce announce(echo() + Words{"--ready-http", "/", "--ready-host", "::ffff:127.0.0.1"} +
                      kWaiting);
    ASSERT_TRUE(service.waitForRequests(1));
    EXPECT_EQ(service.requests().at(0).header("Host"),
              "[::ffff:127.0.0.1]:" + std::to_string(service.port()));
    announce.awaitErrors(" announced ");
    end(announce);
}

TEST_F(Readiness, ThatDoesNotComeInTimeEndsTheCommand) {
    Announce announce(echo(front.port()) + Words{"--ready-timeout", "1"} +
                      shell("trap 'echo got TERM; exit 4' TERM; read line"));
    const auto result = announce.ended(124);
    EXPECT_EQ(result.output, "got TERM\n");
    EXPECT_THAT(result.errors, HasSubstr(" not-ready "));
    EXPECT_EQ(front.counters().requests, 0U);
}

TEST_F(Readiness, ThatNoAttemptCanTestIsReportedWithTheReason) {
    const Folder folder;
    Announce announce(Words{"--registry", urlOf(registry.port()), "--from", writeUnprobable(folder),
                            "--ready-timeout", "0.2"} +
                      kWaiting);
    EXPECT_THAT(announce.ended(124).errors,
                HasSubstr(" not-ready reason=\"/proc/self/exe: Argument list too long\" "));
}

TEST_F(Readiness, ThatHangsDoesNotOutliveItsTime) {
    Announce announce(
        echo() + Words{"--ready-timeout", "0.2", "--ready-command", "sleep 60 & wait"} + kWaiting);
    announce.ended(124);  // detected when no process has its outputs open any more
}

TEST_F(Readiness, DoesNotOutliveACommandThatEnds) {
    Announce announce(echo() + Words{"--ready-command", "echo asked; sleep 60 & wait"} + kWaiting);
    announce.awaitErrors("asked\n");
    end(announce);  // detected when no process has its outputs open any more
}

TEST_F(Readiness, IsTestedByACommandThatDoesNotReadTheInputOfTheOther) {
    Announce announce(echo() + Words{"--ready-command", "! read line"} + kWaiting);
    announce.awaitErrors(" announced ");
    end(announce);
}

TEST_F(Readiness, IsNotWaitedForWhenTheProgramIsStopped) {
    Announce announce(echo(front.port()) + command({"6"}));
    announce.awaitOutput("up\n");
    EXPECT_EQ(announce.stopped(6).output, "up\ngot SIGTERM\n");
    EXPECT_EQ(front.counters().requests, 0U);
}

TEST_F(Readiness, IsNotAskedForWithoutACommand) {
    Announce announce(echo());
    announce.awaitOutput(" announced ");
    announce.stopped(0);
}

TEST_F(Readiness, OfSeveralServicesIsThatOfAll) {
    const Folder folder;
    const HostileServer other;
    const json services{{{"name", "a"}, {"port", other.port()}},
                        {{"name", "b"}, {"port", service.port()}}};
    Announce announce(Words{"--registry", urlOf(registry.port()), "--from",
                            folder.write("set.json", services.dump())} +
                      kWaiting);
    ASSERT_TRUE(other.waitForConnections(2));
    EXPECT_TRUE(entries().empty());
    service.listenAgain();
    EXPECT_TRUE(eventually([this] { return entries().size() == 2; }));
    end(announce);
    EXPECT_TRUE(entries().empty());
}

}  // namespace
}  // namespace orvx::announce
