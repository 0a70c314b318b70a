// The lines of console loggers, their levels, and what happens when they cannot be written. How
// texts are escaped and cut: ConsoleTextTest.cpp.

#include <orvx/utility/TimedConsoleLoggerFactory.h>

#include "Console.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <future>
#include <memory>
#include <regex>
#include <sstream>
#include <vector>

namespace orvx::utility {
namespace {

using Level = ILogger::LogLevel;
using test::standardErrorOf;

constexpr std::array<Level, 4> levels{Level::Error, Level::Warning, Level::Info, Level::Debug};

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// The lines without the time.
std::vector<std::string> timelessLinesOf(const std::function<void()>& work) {
    auto lines = linesOf(standardErrorOf(work));
    for (auto& line : lines) {
        line.erase(0, std::string("2026-01-31 12:00:00.123 ").size());
    }
    return lines;
}

/// The local time in seconds, from the clock of the logger: the seconds of std::time() begin a
/// little later.
std::string timeNow() {
    const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm local{};
    localtime_r(&now, &local);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local)};
}

/// Redirects standard error to `descriptor` while the object lives.
class StandardErrorIs {
  public:
    explicit StandardErrorIs(int descriptor) : before_(dup(STDERR_FILENO)) {
        dup2(descriptor, STDERR_FILENO);
    }
    ~StandardErrorIs() {
        dup2(before_, STDERR_FILENO);
        close(before_);
    }
    StandardErrorIs(const StandardErrorIs&) = delete;
    StandardErrorIs& operator=(const StandardErrorIs&) = delete;

  private:
    int before_;
};

TEST(AConsoleLogger, WritesTheTimeTheLevelTheNamesAndTheText) {
    TimedConsoleLoggerFactory factory(Level::Debug);
    const auto logger = factory.createLogger("OrvxServiceRegistryClient", "Session");
    const auto earliest = timeNow();
    const auto line = standardErrorOf([&] { logger->log("text", 1); });
    const auto latest = timeNow();
    EXPECT_TRUE(
        std::regex_match(line, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} WARNING )"
                                          "OrvxServiceRegistryClient\\.Session: text\n")))
        << line;
    EXPECT_LE(earliest, line.substr(0, earliest.size()));
    EXPECT_GE(latest, line.substr(0, latest.size()));
}

TEST(AConsoleLogger, NamesEachLevel) {
    TimedConsoleLoggerFactory factory(Level::Debug);
    const auto logger = factory.createLogger("C", "N");
    const auto lines = timelessLinesOf([&] {
        for (int level = 0; level < 4; ++level) {
            logger->log("text", level);
        }
    });
    EXPECT_EQ(lines, (std::vector<std::string>{"ERROR C.N: text", "WARNING C.N: text",
                                               "INFO C.N: text", "DEBUG C.N: text"}));
}

TEST(AConsoleLogger, TakesUnknownLevelsForTheNearestKnownOne) {
    TimedConsoleLoggerFactory factory(Level::Debug);
    const auto logger = factory.createLogger("C", "N");
    const auto lines = timelessLinesOf([&] {
        for (const int level :
             {-1, std::numeric_limits<int>::min(), 4, std::numeric_limits<int>::max()}) {
            logger->log("text", level);
        }
    });
    EXPECT_EQ(lines, (std::vector<std::string>{"ERROR C.N: text", "ERROR C.N: text",
                                               "DEBUG C.N: text", "DEBUG C.N: text"}));
}

TEST(AConsoleLogger, WritesItsLevelAndAllThatMatterMore) {
    for (const auto highest : levels) {
        TimedConsoleLoggerFactory factory(highest);
        const auto logger = factory.createLogger("C", "N");
        for (const auto level : levels) {
            const auto text = standardErrorOf([&] { logger->log("", static_cast<int>(level)); });
            EXPECT_EQ(logger->isEnabled(level), level <= highest);
            EXPECT_EQ(text.empty(), level > highest);
        }
        EXPECT_FALSE(logger->isEnabled(Level::Off));
        EXPECT_EQ(logger->isInfoEnabled(), highest >= Level::Info);
    }
}

TEST(AConsoleLogger, WritesNothingWhenItIsOff) {
    TimedConsoleLoggerFactory factory(Level::Off);
    const auto logger = factory.createLogger("C", "N");
    const auto text = standardErrorOf([&] {
        for (int level = -1; level < 4; ++level) {
            logger->log("text", level);
        }
    });
    EXPECT_EQ(text, "");
    EXPECT_FALSE(logger->isEnabled(Level::Error));
    EXPECT_FALSE(logger->isEnabled(Level::Off));
}

TEST(AConsoleLogger, FollowsTheLevelOfItsFactoryAtOnce) {
    TimedConsoleLoggerFactory factory(Level::Error);
    const auto one = factory.createLogger("C", "One");
    const auto two = factory.createLogger("C", "Two");
    const auto lines = timelessLinesOf([&] {
        one->log("early", 3);
        factory.setLogLevel(Level::Debug);
        one->log("text", 3);
        two->log("text", 3);
        factory.setLogLevel(Level::Off);
        two->log("late", 0);
    });
    EXPECT_EQ(lines, (std::vector<std::string>{"DEBUG C.One: text", "DEBUG C.Two: text"}));
}

TEST(AConsoleLogger, IsNotConcernedByTheLevelOfAnotherFactory) {
    TimedConsoleLoggerFactory factory(Level::Error);
    TimedConsoleLoggerFactory other(Level::Error);
    const auto logger = factory.createLogger("C", "N");
    other.setLogLevel(Level::Debug);
    EXPECT_FALSE(logger->isEnabled(Level::Warning));
}

TEST(AConsoleLogger, EscapesItsNames) {
    TimedConsoleLoggerFactory factory(Level::Error);
    const auto logger = factory.createLogger("C\n", "\x1b");
    EXPECT_EQ(timelessLinesOf([&] { logger->log("text", 0); }),
              std::vector<std::string>{R"(ERROR C\n.\x1B: text)"});
}

TEST(AConsoleLogger, OutlivesItsFactory) {
    auto factory = std::make_unique<TimedConsoleLoggerFactory>(Level::Info);
    const auto logger = factory->createLogger("C", "N");
    factory.reset();
    EXPECT_EQ(timelessLinesOf([&] { logger->log("text", 2); }),
              std::vector<std::string>{"INFO C.N: text"});
}

TEST(AConsoleLogger, WritesNothingToStandardOutput) {
    testing::internal::CaptureStdout();
    TimedConsoleLoggerFactory factory(Level::Debug);
    const auto logger = factory.createLogger("C", "N");
    EXPECT_NE(standardErrorOf([&] { logger->log("text", 0); }), "");
    factory.flush();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(AConsoleLogger, WritesWholeLinesFromManyThreads) {
    TimedConsoleLoggerFactory factory(Level::Info);
    const std::string text(1000, 'x');
    const auto lines = timelessLinesOf([&] {
        std::vector<std::future<void>> writers;
        for (int i = 0; i < 4; ++i) {
            writers.push_back(std::async(std::launch::async, [&] {
                const auto logger = factory.createLogger("C", "N");
                for (int line = 0; line < 100; ++line) {
                    logger->log(text, 2);
                }
            }));
        }
    });
    EXPECT_EQ(lines.size(), 400u);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "INFO C.N: " + text), 400);
}

TEST(AConsoleLogger, DropsALineWhoseReaderIsGone) {
    TimedConsoleLoggerFactory factory(Level::Info);
    const auto logger = factory.createLogger("C", "N");
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    close(ends[0]);
    {
        const StandardErrorIs gone(ends[1]);
        EXPECT_NO_THROW(logger->log("lost", 0));
        EXPECT_NO_THROW(factory.flush());
    }
    close(ends[1]);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    EXPECT_EQ(timelessLinesOf([&] { logger->log("shown", 0); }),
              std::vector<std::string>{"ERROR C.N: shown"});
}

TEST(AConsoleLogger, DropsALineThatStandardErrorDoesNotTake) {
    TimedConsoleLoggerFactory factory(Level::Info);
    const auto logger = factory.createLogger("C", "N");
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> full(std::fopen("/dev/full", "w"),
                                                               std::fclose);
    ASSERT_NE(full, nullptr);
    const StandardErrorIs refused(fileno(full.get()));
    EXPECT_NO_THROW(logger->log("lost", 0));
    EXPECT_NO_THROW(factory.flush());
}

TEST(AConsoleLogger, LeavesTheSignalsOfItsCallerAlone) {
    TimedConsoleLoggerFactory factory(Level::Info);
    const auto logger = factory.createLogger("C", "N");
    standardErrorOf([&] { logger->log("text", 0); });
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
}

TEST(TheConsoleLoggerFactory, SaysWhichLevelItHas) {
    TimedConsoleLoggerFactory factory(Level::Warning);
    EXPECT_EQ(factory.getLogLevel(), Level::Warning);
    factory.setLogLevel(Level::Off);
    EXPECT_EQ(factory.getLogLevel(), Level::Off);
}

}  // namespace
}  // namespace orvx::utility
