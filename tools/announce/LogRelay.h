#pragma once

#include <orvx/utility/ILoggerFactory.h>

#include <atomic>
#include <functional>
#include <memory>

namespace orvx::announce {

/// Hands the library's log lines, as they are, to a function, which is called on the thread that
/// logs.
/// Thread-safety: every operation may be called from any thread.
class LogRelay : public utility::ILoggerFactory {
  public:
    using Line = std::function<void(const std::string& message, int level)>;

    explicit LogRelay(Line line) : sink_(std::make_shared<Sink>(std::move(line))) {}

    std::shared_ptr<utility::ILogger> createLogger(const std::string& component,
                                                   const std::string& name) override;
    void flush() override {}
    utility::ILogger::LogLevel getLogLevel() const override { return sink_->level; }
    void setLogLevel(utility::ILogger::LogLevel level) override { sink_->level = level; }

  private:
    struct Sink {
        explicit Sink(Line taker) : line(std::move(taker)) {}
        const Line line;
        std::atomic<utility::ILogger::LogLevel> level{utility::Logger::DEFAULT_LOG_LEVEL};
    };
    class RelayingLogger;

    std::shared_ptr<Sink> sink_;
};

}  // namespace orvx::announce
