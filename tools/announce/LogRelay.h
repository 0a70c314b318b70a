#pragma once

#include <orvx/utility/ILoggerFactory.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace orvx::announce {

/// Hands the library's log lines, as they are, to a function, which is called on the thread that
/// logs. It is the factory and all its loggers. To be made as a std::shared_ptr.
/// Thread-safety: every operation may be called from any thread.
class LogRelay : public utility::ILoggerFactory,
                 public utility::ILogger,
                 public std::enable_shared_from_this<LogRelay> {
  public:
    using Line = std::function<void(const std::string& message)>;

    explicit LogRelay(Line line) : line_(std::move(line)) {}

    std::shared_ptr<ILogger> createLogger(const std::string& /*component*/,
                                          const std::string& /*name*/) override {
        return shared_from_this();
    }
    void flush() override {}
    LogLevel getLogLevel() const override { return level_; }
    void setLogLevel(LogLevel level) override { level_ = level; }

    void log(const std::string& message, int level) override {
        if (isEnabled(static_cast<LogLevel>(level))) {
            line_(message);
        }
    }
    bool isEnabled(LogLevel level) const override { return level <= level_; }

  private:
    const Line line_;
    std::atomic<LogLevel> level_{utility::Logger::DEFAULT_LOG_LEVEL};
};

}  // namespace orvx::announce
