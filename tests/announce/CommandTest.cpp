// A command that runs while its service is announced: its start, its environment and its end.
// Entered by the test's thread; orvx-announce and its command are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"

#include <sys/wait.h>

namespace orvx::announce {
namespace {

class TheCommand : public AnnounceTest {
  protected:
    /// The exit code of the program with this shell script as the command.
    int codeOf(const std::string& script) const {
        return exitCode(Announce(echo() + Words{"--ready", "none"} + shell(script)).wait());
    }
};

TEST_F(TheCommand, IsAnnouncedWhileItRunsAndWithdrawnWhenItEnds) {
    Announce announce(echo() + shell("read line; exit 5"));
    announce.awaitErrors(" announced ");
    const json entry = entries().at(0);
    EXPECT_EQ(entry.at("path"), "/echo/127.0.0.1:" + std::to_string(service.port()));
    EXPECT_EQ(entry.at("service").at("port"), service.port());
    announce.endInput();
    announce.ended(5);
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheCommand, GivesItsExitStatusToTheProgram) {
    EXPECT_EQ(codeOf("exit 0"), 0);
    EXPECT_EQ(codeOf("exit 1"), 1);
    EXPECT_EQ(codeOf("exit 255"), 255);
    EXPECT_EQ(codeOf("kill -KILL $$"), 128 + SIGKILL);
    EXPECT_EQ(codeOf("kill -SEGV $$"), 128 + SIGSEGV);
}

TEST_F(TheCommand, ThatDiesBeforeItIsReadyIsNeverAnnounced) {
    service.stopListening();
    const auto result = Announce(echo(front.port()) + shell("exit 9")).ended(9);
    EXPECT_THAT(result.errors, Not(HasSubstr("announcing")));
    EXPECT_EQ(front.counters().requests, 0U);
}

TEST_F(TheCommand, ThatDoesNotExistIsOneHundredTwentySeven) {
    const auto result = Announce(echo() + Words{"--", "/there/is/none"}).ended(127);
    EXPECT_THAT(result.errors, AllOf(HasSubstr("/there/is/none"), HasSubstr("No such file")));
    Announce(echo() + Words{"--", "there-is-none-in-the-path"}).ended(127);
}

TEST_F(TheCommand, ThatCannotBeExecutedIsOneHundredTwentySix) {
    const Folder folder;
    const auto file = folder.write("plain", "text");
    const auto result = Announce(echo() + Words{"--", file}).ended(126);
    EXPECT_THAT(result.errors, HasSubstr("Permission denied"));
}

TEST_F(TheCommand, GetsItsArgumentsAsTheyAre) {
    const auto result = Announce(echo() + Words{"--ready", "none", "--", "printf", "<%s>", "--name",
                                                "", "a b", "--", "*"})
                            .ended(0);
    EXPECT_EQ(result.output, "<--name><><a b><--><*>");
}

TEST_F(TheCommand, HasTheStandardStreamsForItself) {
    Announce announce(echo() + shell("echo out; echo err >&2; cat"));
    announce.awaitErrors(" announced ");
    announce.endInput();
    const auto result = announce.ended(0);
    EXPECT_EQ(result.output, "out\n");
    EXPECT_THAT(result.errors, HasSubstr("err\n"));
}

TEST_F(TheCommand, InheritsNoDescriptorOfTheProgram) {
    const auto alone = ChildProcess("/bin/ls", {"/proc/self/fd"}).wait();
    const auto announced = Announce(echo() + Words{"--", "/bin/ls", "/proc/self/fd"}).ended(0);
    EXPECT_EQ(announced.output, alone.output);
}

TEST_F(TheCommand, MayBeStartedWithoutStandardStreams) {
    ChildProcess announce("/bin/sh",
                          Words{"-c", "exec \"$0\" \"$@\" <&- >&- 2>&-", paths::kAnnounceProgram} +
                              echo() + Words{"--", "sleep", "3600"});
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    const std::string descriptors = "/proc/" + std::to_string(announce.pid()) + "/fd/";
    for (const char* stream : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink(descriptors + stream), "/dev/null");
    }
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 128 + SIGTERM);
}

TEST_F(TheCommand, HasTheSignalsAsTheStarterHadThem) {
    const auto signals = Words{"-E", "^Sig(Blk|Ign|Cgt)", "/proc/self/status"};
    const auto alone = ChildProcess("/bin/grep", signals).wait();
    const auto announced = Announce(echo() + Words{"--", "/bin/grep"} + signals).ended(0);
    EXPECT_EQ(announced.output, alone.output);
}

TEST_F(TheCommand, IsWaitedForAndSoAreOrphansThatComeToTheProgram) {
    const std::string becomeReaper =
        "import ctypes, os, sys; ctypes.CDLL(None).prctl(36, 1, 0, 0, 0); "
        "os.execv(sys.argv[1], sys.argv[1:])";
    ChildProcess announce("/usr/bin/env",
                          Words{"python3", "-c", becomeReaper, paths::kAnnounceProgram} + echo() +
                              shell("(/bin/true & echo $! >&2); echo started; read line"));
    announce.awaitOutput("started");
    announce.awaitErrors(" announced ");
    const std::string pid = std::to_string(announce.pid());
    const std::string children = "/proc/" + pid + "/task/" + pid + "/children";
    EXPECT_TRUE(eventually([&] {
        std::istringstream list(contentOf(children));
        return std::distance(std::istream_iterator<int>(list), {}) == 1;
    })) << contentOf(children);
    announce.endInput();
    EXPECT_EQ(exitCode(announce.wait()), 1);  // the status of read at the end of its input
}

}  // namespace
}  // namespace orvx::announce
