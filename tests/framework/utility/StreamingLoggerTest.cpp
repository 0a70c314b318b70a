// Log lines made with `<<`: their texts, and that no failure reaches the caller.

#include <orvx/utility/StreamingLogger.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <locale>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace orvx::utility {
namespace {

using Lines = std::vector<std::pair<std::string, int>>;

/// Stores its lines. Throws if the test requires it.
class RecordingLogger : public ILogger {
  public:
    void log(const std::string& message, int level) override {
        failIfToldTo();
        lines.emplace_back(message, level);
    }
    bool isEnabled(LogLevel level) const override {
        failIfToldTo();
        ++questions;
        return level <= highest;
    }

    Lines lines;
    LogLevel highest = LogLevel::Debug;
    bool fails = false;
    mutable int questions = 0;

  private:
    void failIfToldTo() const {
        if (fails) {
            throw std::runtime_error("no log today");
        }
    }
};

class AStreamingLogger : public testing::Test {
  protected:
    std::shared_ptr<RecordingLogger> sink = std::make_shared<RecordingLogger>();
    StreamingLogger logger{sink};
};

/// Sets a global locale that groups digits while the object lives.
class DigitsAreGrouped {
  public:
    DigitsAreGrouped() : before_(std::locale::global({std::locale(), new Grouping})) {}
    ~DigitsAreGrouped() { std::locale::global(before_); }
    DigitsAreGrouped(const DigitsAreGrouped&) = delete;
    DigitsAreGrouped& operator=(const DigitsAreGrouped&) = delete;

  private:
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '\''; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::locale before_;
};

TEST_F(AStreamingLogger, WritesOneLineAtTheLevelOfTheOperation) {
    logger.logError(false) << "one";
    logger.logWarning(false) << "two";
    logger.logInfo(false) << "three";
    EXPECT_EQ(sink->lines, (Lines{{"one", 0}, {"two", 1}, {"three", 2}}));
}

TEST_F(AStreamingLogger, PutsTextsAndNumbersTogether) {
    logger.logInfo(false) << "a " << std::string("b ") << std::string_view("c ") << 3 << "/" << -4L;
    EXPECT_EQ(sink->lines, (Lines{{"a b c 3/-4", 2}}));
}

TEST_F(AStreamingLogger, WritesAnEmptyLineForAnEntryWithoutText) {
    logger.logInfo(false);
    EXPECT_EQ(sink->lines, (Lines{{"", 2}}));
}

TEST_F(AStreamingLogger, WritesTheSmallestAndTheLargestNumbers) {
    logger.logInfo(false) << std::numeric_limits<std::int64_t>::min() << " "
                          << std::numeric_limits<std::uint64_t>::max() << " " << std::uint8_t{65}
                          << " " << std::int8_t{-65};
    EXPECT_EQ(sink->lines, (Lines{{"-9223372036854775808 18446744073709551615 65 -65", 2}}));
}

TEST_F(AStreamingLogger, WritesPlainDigitsWhateverTheGlobalLocaleIs) {
    const DigitsAreGrouped grouped;
    logger.logInfo(false) << 1234567;
    EXPECT_EQ(sink->lines, (Lines{{"1234567", 2}}));
}

TEST_F(AStreamingLogger, WritesNothingAtADisabledLevel) {
    sink->highest = ILogger::LogLevel::Error;
    logger.logInfo(false) << "info " << 1;
    logger.logWarning(false) << "warning " << 1;
    logger.logError(false) << "error " << 1;
    EXPECT_EQ(sink->lines, (Lines{{"error 1", 0}}));
}

TEST_F(AStreamingLogger, HandsOverALineWithoutAskingWhenItIsToldSo) {
    sink->highest = ILogger::LogLevel::Off;
    logger.logInfo(true) << "info";
    logger.logWarning(true) << "warning";
    logger.logError(true) << "error";
    EXPECT_EQ(sink->lines, (Lines{{"info", 2}, {"warning", 1}, {"error", 0}}));
    EXPECT_EQ(sink->questions, 0);
}

TEST_F(AStreamingLogger, AsksForTheLevelOnceForEachLine) {
    logger.logInfo(false) << "a"
                          << "b" << 1;
    EXPECT_EQ(sink->questions, 1);
}

TEST_F(AStreamingLogger, WritesALineWhenItsEntryIsDestroyed) {
    {
        auto entry = logger.logInfo(false);
        entry << "text";
        EXPECT_EQ(sink->lines, Lines{});
    }
    EXPECT_EQ(sink->lines, (Lines{{"text", 2}}));
}

TEST_F(AStreamingLogger, WritesTheLineOfAMovedEntryOnce) {
    {
        auto entry = logger.logInfo(false);
        entry << "one";
        auto moved = std::move(entry);
        entry << "lost";
        moved << "two";
    }
    EXPECT_EQ(sink->lines, (Lines{{"onetwo", 2}}));
}

TEST_F(AStreamingLogger, WritesALineOfAnEntryThatOutlivesIt) {
    auto shortLived = std::make_unique<StreamingLogger>(sink);
    {
        auto entry = shortLived->logInfo(false);
        shortLived.reset();
        entry << "text";
    }
    EXPECT_EQ(sink->lines, (Lines{{"text", 2}}));
}

TEST_F(AStreamingLogger, DropsALineThatTheLoggerDoesNotTake) {
    {
        auto entry = logger.logInfo(false);
        entry << "lost";
        sink->fails = true;
    }
    logger.logInfo(true) << "lost";
    logger.log("lost", 0);
    sink->fails = false;
    logger.logInfo(false) << "kept";
    EXPECT_EQ(sink->lines, (Lines{{"kept", 2}}));
}

TEST_F(AStreamingLogger, DropsALineWhenTheLoggerCannotTellWhetherItIsEnabled) {
    sink->fails = true;
    logger.logInfo(false) << "lost";
    EXPECT_FALSE(logger.isInfoEnabled());
    sink->fails = false;
    EXPECT_EQ(sink->lines, Lines{});
}

TEST_F(AStreamingLogger, DropsALineThatDoesNotFitIntoMemory) {
    const std::string_view endless("", std::string().max_size() + 1);
    logger.logInfo(false) << "lost" << endless << "lost too";
    EXPECT_EQ(sink->lines, Lines{});
}

TEST_F(AStreamingLogger, HandsOverTextAndLevelAsTheyAre) {
    sink->highest = ILogger::LogLevel::Off;
    logger.log("text\n", 17);
    EXPECT_EQ(sink->lines, (Lines{{"text\n", 17}}));
}

TEST_F(AStreamingLogger, SaysWhatTheLoggerSaysOfInfoOutput) {
    EXPECT_TRUE(logger.isInfoEnabled());
    sink->highest = ILogger::LogLevel::Warning;
    EXPECT_FALSE(logger.isInfoEnabled());
}

TEST(AStreamingLoggerWithoutALogger, WritesNothing) {
    const StreamingLogger logger(nullptr);
    logger.logInfo(true) << "lost " << 1;
    logger.logError(false) << "lost";
    logger.log("lost", 0);
    EXPECT_FALSE(logger.isInfoEnabled());
}

TEST(AStreamingLoggerAsAType, ThrowsNothing) {
    using Entry = StreamingLogger::LogEntry;
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Entry>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<Entry>);
    EXPECT_TRUE(noexcept(std::declval<Entry&>() << std::string_view()));
    EXPECT_TRUE(noexcept(std::declval<Entry&>() << 1));
    EXPECT_TRUE(noexcept(std::declval<StreamingLogger&>().logInfo(true)));
    EXPECT_TRUE(noexcept(std::declval<StreamingLogger&>().log("", 0)));
}

}  // namespace
}  // namespace orvx::utility
