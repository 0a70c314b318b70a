// A pipe or a socket whose other end the test reads when it wants to.
// The writer has a thread of its own; the tests wait for what must arrive.

#include "LineWriter.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace orvx::tools {
namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;

/// Limits the size of the process's files while it lives, like a full disk.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &former_), 0);
        const rlimit limit{bytes, former_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &former_), 0);
        std::signal(SIGXFSZ, SIG_DFL);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    rlimit former_{};
};

class TheLineWriter : public ::testing::Test {
  protected:
    TheLineWriter() {
        EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC), 0);
        EXPECT_GE(::fcntl(ends_[0], F_SETPIPE_SZ, 4'096), 0);
        std::signal(SIGPIPE, SIG_IGN);
    }
    ~TheLineWriter() override {
        std::signal(SIGPIPE, SIG_DFL);
        closeReader();
        ::close(ends_[1]);
    }

    static std::string dropped(std::uint64_t count) { return std::to_string(count) + " lost\n"; }
    void closeReader() {
        if (const int end = std::exchange(ends_[0], -1); end >= 0) {
            ::close(end);
        }
    }
    /// All up to that text. Throws after ten seconds without more.
    std::string readUntil(const std::string& text) const {
        std::string read;
        pollfd polled{ends_[0], POLLIN, 0};
        while (read.size() < text.size() ||
               read.compare(read.size() - text.size(), text.size(), text) != 0) {
            char byte = 0;
            if (::poll(&polled, 1, 10'000) != 1 || ::read(ends_[0], &byte, 1) != 1) {
                throw std::runtime_error("there is nothing after: " + read);
            }
            read += byte;
        }
        return read;
    }
    void makeSocket() {
        closeReader();
        ::close(ends_[1]);
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data()), 0);
    }
    void expectDropsAreCounted() const {
        LineWriter writer(ends_[1], dropped);
        const std::string line = std::string(9'999, 'x') + '\n';
        std::uint64_t lost = 0;
        while (lost < 3) {
            lost += writer.write(line) ? 0 : 1;
        }
        const std::string read = readUntil(" lost\n");
        EXPECT_EQ(read.size() % line.size(), dropped(3).size());
        EXPECT_THAT(read, EndsWith("\n" + dropped(3)));
        EXPECT_TRUE(writer.write("after\n"));
        EXPECT_EQ(readUntil("after\n"), "after\n");
    }

    std::array<int, 2> ends_{};
};

TEST_F(TheLineWriter, WritesALineBeforeItReturnsIfThereIsRoom) {
    LineWriter writer(ends_[1], dropped);
    EXPECT_TRUE(writer.write("one\n"));
    std::array<char, 10> bytes{};
    pollfd polled{ends_[0], POLLIN, 0};
    EXPECT_EQ(::poll(&polled, 1, 0), 1);
    EXPECT_EQ(::read(ends_[0], bytes.data(), bytes.size()), 4);
}

TEST_F(TheLineWriter, WritesTheRestWithoutAnotherLineOnceThereIsRoom) {
    LineWriter writer(ends_[1], dropped);
    EXPECT_TRUE(writer.write(std::string(10'000, 'x') + '\n'));
    EXPECT_TRUE(writer.write("two\n"));
    EXPECT_EQ(readUntil("two\n"), std::string(10'000, 'x') + "\ntwo\n");
}

TEST_F(TheLineWriter, DropsLinesWhileItsQueueIsFullAndTellsTheirNumber) {
    expectDropsAreCounted();
}

// As in a program that was started by another user: it cannot open the pipe a second time.
TEST_F(TheLineWriter, NeverWaitsForTheReaderOfAPipeThatBelongsToAnotherUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    struct AnotherUser {
        AnotherUser() { EXPECT_EQ(::seteuid(65534), 0); }
        ~AnotherUser() { EXPECT_EQ(::seteuid(0), 0); }
    };
    const AnotherUser user;
    expectDropsAreCounted();
}

TEST_F(TheLineWriter, NeverWaitsForTheReaderOfASocket) {
    makeSocket();
    expectDropsAreCounted();
}

TEST_F(TheLineWriter, LosesWhatIsQueuedWhenTheReaderEnds) {
    LineWriter writer(ends_[1], dropped);
    EXPECT_TRUE(writer.write(std::string(10'000, 'x') + '\n'));
    closeReader();
    while (writer.write("next\n")) {
    }
    EXPECT_FALSE(writer.write("next\n"));
}

TEST_F(TheLineWriter, BeginsANewLineAfterOneThatAFullDiskHasCut) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    LineWriter writer(::fileno(file.get()), dropped);
    EXPECT_TRUE(writer.write("one\n"));
    {
        const FileSizeLimit limit(10);
        EXPECT_FALSE(writer.write("a line that is cut\n"));
        EXPECT_FALSE(writer.write("a line that is lost\n"));
    }
    EXPECT_TRUE(writer.write("two\n"));
    EXPECT_TRUE(writer.write("three\n"));
    std::array<char, 100> bytes{};
    const auto size = ::pread(::fileno(file.get()), bytes.data(), bytes.size(), 0);
    ASSERT_GE(size, 0);
    EXPECT_EQ(std::string(bytes.data(), static_cast<std::size_t>(size)),
              "one\na line\ntwo\nthree\n");
}

TEST_F(TheLineWriter, DoesNotChangeTheFlagsThatOthersShare) {
    const LineWriter writer(ends_[1], dropped);
    EXPECT_EQ(::fcntl(ends_[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(TheLineWriter, WritesItsQueueBeforeItEnds) {
    std::string read;
    {
        LineWriter writer(ends_[1], dropped);
        EXPECT_TRUE(writer.write(std::string(7'000, 'x') + "\nlast\n"));
        std::array<char, 4'096> bytes{};
        read.assign(bytes.data(),
                    static_cast<std::size_t>(::read(ends_[0], bytes.data(), bytes.size())));
    }
    read += readUntil("last\n");
    EXPECT_THAT(read, StartsWith("x"));
    EXPECT_EQ(read.size(), 7'006U);
}

}  // namespace
}  // namespace orvx::tools
