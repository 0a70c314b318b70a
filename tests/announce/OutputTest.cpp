// The output of the program: lines, JSON, colours, the status on request and in a file. Entered by
// the test's thread and those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"
#include "Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace orvx::announce {
namespace {

using TheOutput = AnnounceTest;

/// A pipe of the smallest size. The program writes to it.
class SmallPipe {
  public:
    explicit SmallPipe(std::string name) : name_(std::move(name)) {
        EXPECT_EQ(::mkfifo(name_.c_str(), 0600), 0);
        fd_ = ::open(name_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        EXPECT_GE(::fcntl(fd_, F_SETPIPE_SZ, 4096), 0);
    }
    ~SmallPipe() { ::close(fd_); }
    SmallPipe(const SmallPipe&) = delete;
    SmallPipe& operator=(const SmallPipe&) = delete;

    const std::string& name() const { return name_; }
    std::string readNow() const {
        std::array<char, 4096> bytes{};
        const auto size = ::read(fd_, bytes.data(), bytes.size());
        return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
    }
    /// Reads up to the end of a line that contains `text`.
    std::string readUntil(const std::string& text) const {
        std::string read;
        pollfd polled{fd_, POLLIN, 0};
        while (read.find(text) == std::string::npos || read.back() != '\n') {
            if (::poll(&polled, 1, 10'000) != 1) {
                throw std::runtime_error("nothing was written for ten seconds");
            }
            read += readNow();
        }
        return read;
    }

  private:
    std::string name_;
    int fd_;
};

class TheStatusFile : public AnnounceTest {
  protected:
    /// Waits until the program's service in the status file meets the condition. Returns that
    /// service.
    json serviceWhen(const std::function<bool(const json&)>& condition) const {
        json found;
        EXPECT_TRUE(eventually([&] {
            const json status = json::parse(contentOf(file), nullptr, false);
            found = status.is_object() ? status.at("services").at(0) : json::object();
            return condition(found);
        })) << contentOf(file);
        return found;
    }
    static auto isIn(const std::string& state) {
        return [state](const json& found) { return found.value("state", "") == state; };
    }

    const Folder folder;
    const std::string file = folder.file("status.json");
};

class ALongLine : public TheStatusFile {
  protected:
    /// The program, with the pipe as standard output.
    Words writingTo(const SmallPipe& pipe) const {
        return Words{"-c",
                     "exec \"$@\" >" + pipe.name(),
                     "sh",
                     paths::kAnnounceProgram,
                     "--json",
                     "--registry",
                     urlOf(registry.port()),
                     "--name",
                     name,
                     "--uri",
                     "/lamp",
                     "--port",
                     std::to_string(service.port()),
                     "--status-file",
                     file};
    }

    const std::string name = std::string(6000, 'x');
};

/// Limits the size of the process's files, like a full disk.
void limitFileSize(pid_t pid, rlim_t bytes) {
    const rlimit limit{bytes, bytes};
    EXPECT_EQ(::prlimit(pid, RLIMIT_FSIZE, &limit, nullptr), 0);
}

TEST_F(TheOutput, IsALineForEachEvent) {
    Announce announce(echo());
    announce.awaitOutput(" announced ");
    EXPECT_THAT(announce.stopped(0).output,
                ::testing::MatchesRegex(
                    "([-0-9]+T[:0-9]+Z orvx-announce: "
                    "(announcing|announced|stopping|withdrawing|withdrawn) [^\n\x1b]*\n){5}"));
}

TEST_F(TheOutput, GoesToStandardErrorWhenThereIsACommand) {
    Announce announce(echo() + shell("read line; exit 2"));
    announce.awaitErrors(" announced ");
    announce.endInput();
    EXPECT_THAT(announce.ended(2).output, IsEmpty());
}

TEST_F(TheOutput, MayBeJson) {
    Announce announce(echo() + Words{"--json"} + shell("read line; exit 2"));
    announce.awaitErrors("\"announced\"");
    const json uuid = entries().at(0).at("uuid");
    announce.endInput();
    const auto lines = linesOf(announce.ended(2).errors);
    EXPECT_EQ(eventsOf(lines), "started ready announcing announced ended withdrawing withdrawn ");
    EXPECT_EQ(lines.at(3).at("uuid"), uuid);
    EXPECT_EQ(lines.at(3).at("service"), "echo");
    EXPECT_EQ(lines.at(4).at("exitCode"), 2);
}

TEST_F(TheOutput, IsColouredOnATerminalUnlessThatIsNotWanted) {
    for (const bool isWanted : {true, false}) {
        Terminal terminal(Words{"/usr/bin/env", isWanted ? "NO_COLOR=" : "NO_COLOR=1", "TERM=xterm",
                                paths::kAnnounceProgram} +
                          echo());
        terminal.await("uuid=");
        terminal.type("\x03");
        EXPECT_EQ(terminal.wait(), 0);
        EXPECT_THAT(terminal.text(), HasSubstr(isWanted ? "\x1b[32mannounced\x1b[0m "
                                                        : " orvx-announce: announced "));
    }
}

TEST_F(TheOutput, PrintsTheStatusOnRequest) {
    Announce announce(echo() + Words{"--json"});
    announce.awaitOutput("\"announced\"");
    announce.signal(SIGUSR1);
    announce.awaitOutput("\"timesAnnounced\":1,");
    const auto lines = linesOf(announce.stopped(0).output);
    EXPECT_EQ(eventsOf(lines),
              "announcing announced status status stopping withdrawing withdrawn ");
    EXPECT_EQ(lines.at(2).at("summary"), "1 of 1 announced");
    const json& shown = lines.at(3);
    EXPECT_EQ(shown.at("service"), "echo");
    EXPECT_EQ(shown.at("state"), "announced");
    EXPECT_EQ(shown.at("attempts"), 0);
    EXPECT_EQ(shown.at("uuid"), lines.at(1).at("uuid"));
    EXPECT_EQ(shown.at("since"), lines.at(1).at("time"));
    EXPECT_LE(shown.at("lastConfirmed"), shown.at("nextAttempt"));
    EXPECT_EQ(shown.count("lastFailure"), 0U);
}

TEST_F(TheOutput, BeyondTheLargestFileIsLostAndHarmsNothing) {
    const Folder folder;
    const std::string file = folder.file("output");
    ChildProcess announce(
        "/bin/sh", Words{"-c", "exec \"$0\" \"$@\" >" + file, paths::kAnnounceProgram} + echo());
    EXPECT_TRUE(
        eventually([&] { return contentOf(file).find(" announced ") != std::string::npos; }));
    const auto size = std::filesystem::file_size(file);
    limitFileSize(announce.pid(), size + 1);
    announce.signal(SIGUSR1);
    EXPECT_TRUE(eventually([&] { return std::filesystem::file_size(file) > size; }));
    announce.signal(SIGUSR1);
    EXPECT_TRUE(eventually([&] { return !hasPendingSignal(announce.pid()); }));
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(ALongLine, DoesNotWaitForSpaceInAPipeThatIsNotRead) {
    const SmallPipe pipe(folder.file("pipe"));
    ChildProcess announce("/bin/sh", writingTo(pipe));
    EXPECT_TRUE(eventually([this] { return entries().size() == 1; }));
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(ALongLine, ArrivesWholeWhenThePipeIsReadLater) {
    const SmallPipe pipe(folder.file("pipe"));
    ChildProcess announce("/bin/sh", writingTo(pipe));
    // By then the line of this event is queued. Later it might come after the status.
    serviceWhen(isIn("announced"));
    const auto lines = linesOf(pipe.readUntil("\n"));
    EXPECT_EQ(lines.at(0).at("service"), name);
    announce.signal(SIGUSR1);
    for (const json& line : linesOf(pipe.readUntil("\"status\""))) {
        EXPECT_EQ(line.count("event"), 1U);
    }
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
}

TEST_F(ALongLine, IsCountedWhenItIsDropped) {
    const SmallPipe pipe(folder.file("pipe"));
    ChildProcess announce("/bin/sh", writingTo(pipe));
    serviceWhen(isIn("announced"));
    std::string read;
    for (int i = 0; i < 1'000 && read.find("\"lines-dropped\"") == std::string::npos; ++i) {
        announce.signal(SIGUSR1);
        EXPECT_TRUE(eventually([&] { return !hasPendingSignal(announce.pid()); }));
        read += i < 100 ? "" : pipe.readNow();  // by then there are more than the queue takes
    }
    read += read.back() == '\n' ? "" : pipe.readUntil("\n");
    int dropped = 0;
    for (const json& line : linesOf(read)) {
        dropped += line.at("event") == "lines-dropped" ? line.at("count").get<int>() : 0;
    }
    EXPECT_GT(dropped, 0);
}

TEST_F(TheStatusFile, FollowsTheServiceFromItsStartToItsEnd) {
    passOnInFront();
    front.stopListening();
    Announce announce(echo(front.port()) + Words{"--status-file", file, "--check-interval", "1",
                                                 "--retry-interval", "0.01"});
    const json trying =
        serviceWhen([](const json& found) { return found.value("attempts", 0) > 1; });
    EXPECT_EQ(trying.at("state"), "announcing");
    EXPECT_EQ(trying.at("reason"), "PUT: CONNECT_FAILED: connection refused by 127.0.0.1:" +
                                       std::to_string(front.port()));
    EXPECT_EQ(trying.at("lastFailure").at("outcome"), "CONNECT_FAILED");
    front.listenAgain();
    const json announced = serviceWhen(isIn("announced"));
    EXPECT_EQ(announced.at("uuid"), entries().at(0).at("uuid"));
    const json checked = serviceWhen([&](const json& found) {
        return found.value("lastConfirmed", "") > announced.at("announcedSince");
    });
    EXPECT_EQ(checked.at("since"), announced.at("since"));
    EXPECT_EQ(checked.count("reason"), 0U);
    announce.stopped(0);
    EXPECT_EQ(serviceWhen(isIn("withdrawn")).count("uuid"), 1U);
}

TEST_F(TheStatusFile, CountsServicesThatWereConfirmedWithinTwoCheckIntervals) {
    holdBack("HEAD");
    Announce announce(echo(front.port()) + Words{"--status-file", file, "--check-interval", "2",
                                                 "--check-timeout", "0.1"});
    const auto summary = [this] { return json::parse(contentOf(file)).at("summary"); };
    serviceWhen(isIn("unreachable"));
    EXPECT_EQ(summary(), "1 of 1 announced");
    EXPECT_TRUE(eventually([&] { return summary() == "0 of 1 announced"; }));
    EXPECT_EQ(serviceWhen(isIn("unreachable")).count("lastConfirmed"), 1U);
    announce.stopped(0);
}

TEST_F(TheStatusFile, SaysWhatTheRegistrySaid) {
    answerInFront("PUT", testing::response(409, {}, "this name is taken"));
    Announce(echo(front.port()) + Words{"--status-file", file}).ended(1);
    EXPECT_EQ(serviceWhen(isIn("refused")).at("reason"), "HTTP 409: this name is taken");
}

TEST_F(TheStatusFile, IsWholeWheneverItIsRead) {
    json set = json::array();
    for (int i = 0; i < 50; ++i) {
        set.push_back({{"name", "lamp" + std::to_string(i)}, {"port", 8000}});
    }
    Announce announce({"--registry", urlOf(registry.port()), "--status-file", file, "--from",
                       folder.write("set.json", set.dump())});
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(file); }));
    std::string summary;
    while (summary != "50 of 50 announced") {
        summary = json::parse(contentOf(file)).at("summary");
    }
    announce.stopped(0);
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));
}

TEST_F(TheStatusFile, IsSavedAlthoughAnEarlierProgramDiedWhileItSaved) {
    folder.write("status.json.new", "{");
    Announce announce(echo() + Words{"--status-file", file});
    EXPECT_EQ(serviceWhen(isIn("announced")).at("service"), "echo");
    EXPECT_THAT(announce.stopped(0).output, Not(HasSubstr("no-status-file")));
}

TEST_F(TheStatusFile, ReplacesNothingThatIsNoPlainFile) {
    std::filesystem::create_symlink("/dev/null", file);
    const auto result = Announce(echo() + Words{"--status-file", file}).ended(125);
    EXPECT_THAT(result.errors, HasSubstr("--status-file"));
    EXPECT_TRUE(std::filesystem::is_symlink(file));
}

TEST_F(TheStatusFile, ThatCannotBeWrittenIsReportedOnceAndHarmsNothing) {
    Announce announce(echo() + Words{"--status-file", folder.file("none/status.json")});
    announce.awaitOutput(" announced ");
    const std::string output = announce.stopped(0).output;
    const auto first = output.find(" no-status-file ");
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(output.find(" no-status-file ", first + 1), std::string::npos);
}

TEST_F(TheStatusFile, BeyondTheLargestFileIsReportedAndHarmsNothing) {
    Announce announce(echo() + Words{"--status-file", file});
    serviceWhen(isIn("announced"));
    limitFileSize(announce.pid(), 0);
    EXPECT_THAT(announce.stopped(0).output,
                HasSubstr(" no-status-file reason=\"" + file + ": File too large\""));
    EXPECT_THAT(entries(), IsEmpty());
}

}  // namespace
}  // namespace orvx::announce
