// Console loggers on a standard error without a reader. Lines are one byte shorter than 1 KiB, so
// that they do not fit by chance. Threads: the test's, one that logs, the writer's.

#include <orvx/utility/TimedConsoleLoggerFactory.h>

#include "Support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace orvx::utility {
namespace {

using Level = ILogger::LogLevel;
using test::isReady;

/// The two ends of a pipe or socket: bytes that are written to one are read from the other.
struct Ends {
    int reading = -1;
    int writing = -1;
};

Ends makePipe() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    return {ends[0], ends[1]};
}

Ends makeSocket() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    return {ends[0], ends[1]};
}

Ends makeTerminal() {
    Ends ends;
    ends.reading = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_EQ(grantpt(ends.reading), 0);
    EXPECT_EQ(unlockpt(ends.reading), 0);
    ends.writing = open(ptsname(ends.reading), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios mode{};
    tcgetattr(ends.writing, &mode);
    cfmakeraw(&mode);
    tcsetattr(ends.writing, TCSANOW, &mode);
    return ends;
}

/// Writes dots until no more are accepted.
void fill(int descriptor) {
    const int flags = fcntl(descriptor, F_GETFL);
    fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
    while (write(descriptor, ".", 1) == 1) {
    }
    fcntl(descriptor, F_SETFL, flags);
}

/// Redirects standard error to `ends`, which are full at first, while the object lives.
class FullStandardError {
  public:
    explicit FullStandardError(const Ends& ends)
        : reading_(ends.reading), before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
        dup2(ends.writing, STDERR_FILENO);
        close(ends.writing);
        fill(STDERR_FILENO);
    }
    ~FullStandardError() {
        dup2(before_, STDERR_FILENO);
        close(before_);
        close(reading_);
    }
    FullStandardError(const FullStandardError&) = delete;
    FullStandardError& operator=(const FullStandardError&) = delete;

    /// Reads until `last` has come.
    std::string readUntil(const std::string& last) {
        while (text_.find(last) == std::string::npos && readSome(60'000)) {
        }
        return text_;
    }
    /// Reads the available bytes.
    std::string readAll() {
        while (readSome(0)) {
        }
        return text_;
    }
    /// Reads until a byte can be written.
    void makeRoom() {
        pollfd written{STDERR_FILENO, POLLOUT, 0};
        char byte = 0;
        while (poll(&written, 1, 0) == 0 && read(reading_, &byte, 1) == 1) {
        }
    }
    int flags() const { return fcntl(STDERR_FILENO, F_GETFL); }

  private:
    bool readSome(int milliseconds) {
        pollfd wanted{reading_, POLLIN, 0};
        char bytes[4096];
        const bool isReadable = poll(&wanted, 1, milliseconds) == 1;
        const ssize_t count = isReadable ? read(reading_, bytes, sizeof bytes) : 0;
        text_.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
        return count > 0;
    }

    const int reading_;
    const int before_;
    std::string text_;
};

std::string numbered(int number) {
    const auto digits = std::to_string(number);
    return std::string(1000 - digits.size(), 'x') + ' ' + digits;
}

void logNumbered(ILogger& logger, int first, int end) {
    for (int number = first; number < end; ++number) {
        logger.log(numbered(number), 0);
    }
}

/// The numbers of the lines, in order; -N for a line that reports N dropped lines.
std::vector<int> numbersIn(const std::string& text) {
    std::istringstream lines(text);
    std::vector<int> numbers;
    for (std::string line; std::getline(lines, line);) {
        const auto dropped = line.find("lines dropped: ");
        const auto number = line.rfind(' ');
        EXPECT_NE(number, std::string::npos) << line;
        numbers.push_back((dropped == std::string::npos ? 1 : -1) *
                          std::atoi(line.c_str() + number + 1));
    }
    return numbers;
}

std::vector<int> firstNumbers(int count) {
    std::vector<int> numbers;
    for (int number = 1; number <= count; ++number) {
        numbers.push_back(number);
    }
    return numbers;
}

class AConsoleThatNobodyReads : public ::testing::TestWithParam<Ends (*)()> {
  protected:
    TimedConsoleLoggerFactory factory{Level::Info};
    std::shared_ptr<ILogger> logger = factory.createLogger("C", "N");
};

// The first line that did not fit once blocked its caller until the pipe was read.
TEST_P(AConsoleThatNobodyReads, NeverHoldsUpWhoLogsAndCountsInOneLineWhatItDropped) {
    constexpr int many = 1000;
    FullStandardError console(GetParam()());
    const int flags = console.flags();
    auto logging = std::async(std::launch::async, [&] { logNumbered(*logger, 1, many + 1); });
    EXPECT_TRUE(isReady(logging, std::chrono::seconds(60)));
    console.readUntil("lines dropped: ");
    logging.wait();
    console.readUntil("\n");
    factory.flush();
    logger->log("read again 7", 0);
    const auto numbers = numbersIn(console.readUntil("read again 7\n"));
    ASSERT_GT(numbers.size(), 2U);
    const int written = static_cast<int>(numbers.size()) - 2;
    auto expected = firstNumbers(written);
    expected.insert(expected.end(), {written - many, 7});
    EXPECT_EQ(numbers, expected);
    EXPECT_GT(written, 100);
    EXPECT_EQ(console.flags(), flags) << "they are those of everybody who writes there";
}

TEST_P(AConsoleThatNobodyReads, WritesWhatIsQueuedBeforeItEnds) {
    auto console = std::make_unique<FullStandardError>(GetParam()());
    auto own = std::make_unique<TimedConsoleLoggerFactory>(Level::Info);
    const auto logging = std::async(std::launch::async, [&] {
        logNumbered(*own->createLogger("C", "N"), 1, 101);
        own.reset();
    });
    EXPECT_EQ(numbersIn(console->readUntil("x 100\n")), firstNumbers(100));
    EXPECT_TRUE(isReady(logging));
}

TEST_P(AConsoleThatNobodyReads, EndsWithinABound) {
    FullStandardError console(GetParam()());
    auto own = std::make_unique<TimedConsoleLoggerFactory>(Level::Info);
    auto ending = std::async(std::launch::async, [&] {
        logNumbered(*own->createLogger("C", "N"), 1, 11);
        own->flush();
        own.reset();
    });
    EXPECT_TRUE(isReady(ending, std::chrono::seconds(5)));
    console.readAll();
    ending.wait();
}

INSTANTIATE_TEST_SUITE_P(Console, AConsoleThatNobodyReads,
                         ::testing::Values(&makePipe, &makeSocket, &makeTerminal));

class AConsoleWithABacklog : public ::testing::Test {
  protected:
    AConsoleWithABacklog() {
        auto logging = std::async(std::launch::async, [&] { logNumbered(*logger, 1, 11); });
        if (!isReady(logging, std::chrono::seconds(5))) {
            console.readAll();
            ADD_FAILURE() << "it holds up who logs";
        }
    }

    TimedConsoleLoggerFactory factory{Level::Info};
    std::shared_ptr<ILogger> logger = factory.createLogger("C", "N");
    FullStandardError console{makePipe()};
};

TEST_F(AConsoleWithABacklog, LeavesItToTheParentInAForkedChildThatLogsOnItsOwn) {
    const auto own = makePipe();
    const auto child = fork();
    if (child == 0) {
        alarm(static_cast<unsigned>(test::kBound.count()));
        dup2(own.writing, STDERR_FILENO);
        logger->log("child 1", 0);
        factory.flush();
        logger->log("child 2", 0);
        close(STDERR_FILENO);  // a leak checker may write there, too
        std::exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    close(own.writing);
    char bytes[4096];
    const auto count = read(own.reading, bytes, sizeof bytes);
    close(own.reading);
    EXPECT_EQ(numbersIn(std::string(bytes, static_cast<std::size_t>(count > 0 ? count : 0))),
              firstNumbers(2));
    logger->log("parent 11", 0);
    EXPECT_EQ(numbersIn(console.readUntil("parent 11\n")), firstNumbers(11));
}

TEST_F(AConsoleWithABacklog, DropsItWhenTheReaderIsGone) {
    const auto other = makePipe();
    dup2(other.writing, STDERR_FILENO);
    close(other.reading);
    close(other.writing);
    factory.flush();
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(AConsoleWithoutAThread, KeepsTheLinesUntilItEnds) {
    auto factory = std::make_unique<TimedConsoleLoggerFactory>(Level::Info);
    FullStandardError console(makePipe());
    const auto logging = std::async(std::launch::async, [&] {
        const test::ThreadsCannotBeMade noThreads;
        logNumbered(*factory->createLogger("C", "N"), 1, 11);
    });
    if (!isReady(logging, std::chrono::seconds(5))) {
        console.readAll();
        FAIL() << "it holds up who logs";
    }
    const auto ending = std::async(std::launch::async, [&] { factory.reset(); });
    EXPECT_EQ(numbersIn(console.readUntil("x 10\n")), firstNumbers(10));
}

/// While an object lives, the process cannot open a file. Descriptor 0 must be open.
class NoFurtherDescriptor {
  public:
    NoFurtherDescriptor() {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit one{1, before_.rlim_max};  // poll() refuses more descriptors than the limit
        setrlimit(RLIMIT_NOFILE, &one);
        EXPECT_LT(open("/dev/null", O_WRONLY | O_CLOEXEC), 0);
    }
    ~NoFurtherDescriptor() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoFurtherDescriptor(const NoFurtherDescriptor&) = delete;
    NoFurtherDescriptor& operator=(const NoFurtherDescriptor&) = delete;

  private:
    rlimit before_{};
};

TEST(AConsoleWithoutADescriptor, WritesAllTheSame) {
    for (const auto make : {&makePipe, &makeTerminal}) {
        TimedConsoleLoggerFactory factory(Level::Info);
        FullStandardError console(make());
        console.readAll();
        const NoFurtherDescriptor none;
        logNumbered(*factory.createLogger("C", "N"), 1, 101);
        EXPECT_EQ(numbersIn(console.readUntil("x 100\n")), firstNumbers(100));
    }
}

// A process that ends without the destructor would lose the lines otherwise.
TEST(AConsoleWithoutADescriptorAndAThread, WritesItsLinesWhenItIsFlushed) {
    for (const auto make : {&makePipe, &makeTerminal}) {
        TimedConsoleLoggerFactory factory(Level::Info);
        FullStandardError console(make());
        console.readAll();
        const NoFurtherDescriptor none;
        const test::ThreadsCannotBeMade noThreads;
        logNumbered(*factory.createLogger("C", "N"), 1, 4);
        factory.flush();
        EXPECT_EQ(numbersIn(console.readUntil("x 3\n")), firstNumbers(3));
    }
}

TEST(AConsoleWithoutADescriptorAndAThread, IsFlushedWithinABound) {
    for (const auto make : {&makePipe, &makeSocket, &makeTerminal}) {
        TimedConsoleLoggerFactory factory(Level::Info);
        FullStandardError console(make());
        auto flushing = std::async(std::launch::async, [&] {
            const NoFurtherDescriptor none;
            const test::ThreadsCannotBeMade noThreads;
            logNumbered(*factory.createLogger("C", "N"), 1, 4);
            factory.flush();
        });
        EXPECT_TRUE(isReady(flushing, std::chrono::seconds(5)));
        console.readAll();
        flushing.wait();
    }
}

// A terminal that is ready may have room for a part of a line. The rest once blocked the writer.
TEST(AConsoleWithoutADescriptor, EndsWithinABoundAtATerminalThatTakesAPartOfALine) {
    FullStandardError console(makeTerminal());
    console.makeRoom();
    auto factory = std::make_unique<TimedConsoleLoggerFactory>(Level::Info);
    const NoFurtherDescriptor none;
    auto ending = std::async(std::launch::async, [&] {
        factory->createLogger("C", "N")->log(std::string(4000, 'x'), 0);
        factory.reset();
    });
    EXPECT_TRUE(isReady(ending, std::chrono::seconds(5)));
    console.readAll();
    ending.wait();
}

}  // namespace
}  // namespace orvx::utility
