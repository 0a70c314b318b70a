// Loggers that share a level and a writer.
// Entered by any thread; the only lock is the writer's, which is a leaf lock. The level is atomic.
// Loggers share the console and keep it alive after the factory.

#include <orvx/utility/TimedConsoleLoggerFactory.h>

#include "ConsoleText.h"
#include "ConsoleWriter.h"

#include <orvx/utility/ForkMark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>

namespace orvx::utility {

namespace {

const char* levelName(int level) {
    static constexpr std::array<const char*, 4> kNames{"ERROR", "WARNING", "INFO", "DEBUG"};
    return kNames[static_cast<std::size_t>(level)];
}

}  // namespace

struct TimedConsoleLoggerFactory::Console {
    class Logger;

    explicit Console(ILogger::LogLevel level)
        : highest(level), writer_(std::make_unique<ConsoleWriter>().release()) {}
    ~Console() {
        if (ConsoleWriter* const last = writer_; last->isInForkedChild()) {
            leakInForkedChild(last);
        } else {
            delete last;
        }
    }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// The writer. A forked child gets a new one, because the lock of the parent's writer may be
    /// held for ever.
    ConsoleWriter& writer() {
        ConsoleWriter* known = writer_;
        if (!known->isInForkedChild()) {
            return *known;
        }
        auto fresh = std::make_unique<ConsoleWriter>();
        if (!writer_.compare_exchange_strong(known, fresh.get())) {
            return *known;
        }
        leakInForkedChild(known);
        return *fresh.release();
    }

    /// Less important levels are not written.
    std::atomic<ILogger::LogLevel> highest;

  private:
    /// Owned; never null.
    std::atomic<ConsoleWriter*> writer_;
};

class TimedConsoleLoggerFactory::Console::Logger : public ILogger {
  public:
    Logger(std::shared_ptr<Console> console, const std::string& name)
        : console_(std::move(console)), name_(toConsoleText(name)) {}

    void log(const std::string& message, int level) override {
        const auto known =
            std::clamp(level, static_cast<int>(LogLevel::Error), static_cast<int>(LogLevel::Debug));
        if (!isEnabled(static_cast<LogLevel>(known))) {
            return;
        }
        try {
            console_->writer().write(levelName(known) + (" " + name_) + ": " +
                                     toConsoleText(message));
        } catch (...) {
            // The line is lost.
        }
    }

    bool isEnabled(LogLevel level) const override {
        return level != LogLevel::Off && level <= console_->highest;
    }

  private:
    std::shared_ptr<Console> console_;
    std::string name_;
};

TimedConsoleLoggerFactory::TimedConsoleLoggerFactory(ILogger::LogLevel level)
    : console_(std::make_shared<Console>(level)) {}

TimedConsoleLoggerFactory::~TimedConsoleLoggerFactory() = default;

std::shared_ptr<ILogger> TimedConsoleLoggerFactory::createLogger(const std::string& component,
                                                                 const std::string& name) {
    return std::make_shared<Console::Logger>(console_, component + "." + name);
}

void TimedConsoleLoggerFactory::flush() {
    console_->writer().flush();
}

ILogger::LogLevel TimedConsoleLoggerFactory::getLogLevel() const {
    return console_->highest;
}

void TimedConsoleLoggerFactory::setLogLevel(ILogger::LogLevel level) {
    console_->highest = level;
}

}  // namespace orvx::utility
