// The default behaviour of the logger interface.

#include <orvx/utility/ILogger.h>

#include <gtest/gtest.h>

namespace orvx::utility {
namespace {

class LoggerAtOneLevel : public ILogger {
  public:
    explicit LoggerAtOneLevel(LogLevel level) : level_(level) {}
    void log(const std::string& /*message*/, int /*level*/) override {}
    bool isEnabled(LogLevel level) const override { return level == level_; }

  private:
    LogLevel level_;
};

TEST(TheLoggerInterface, SaysOfInfoOutputWhatItSaysOfTheLevel) {
    EXPECT_TRUE(LoggerAtOneLevel(ILogger::LogLevel::Info).isInfoEnabled());
    EXPECT_FALSE(LoggerAtOneLevel(ILogger::LogLevel::Warning).isInfoEnabled());
}

TEST(TheDefaultLogLevel, IsInfo) {
    EXPECT_EQ(Logger::DEFAULT_LOG_LEVEL, ILogger::LogLevel::Info);
}

}  // namespace
}  // namespace orvx::utility
