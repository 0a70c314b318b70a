// Loggers that write to standard error through one spdlog logger, which adds the time.
// Entered by any thread; the one lock is that of spdlog's console sink, a leaf. The level is an
// atomic that the loggers share, and they keep the console alive without the factory.

#include <orvx/utility/TimedConsoleLoggerFactory.h>

#include "ConsoleText.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <utility>

namespace orvx::utility {

namespace {

/// Keeps the signal away that ends a process when it writes to a pipe whose reader is gone.
class PipeSignalHeldBack {
  public:
    PipeSignalHeldBack() {
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signal_, &before_);
    }
    ~PipeSignalHeldBack() {
        const timespec atOnce{};
        while (!wasPending_ && sigtimedwait(&signal_, nullptr, &atOnce) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    PipeSignalHeldBack(const PipeSignalHeldBack&) = delete;
    PipeSignalHeldBack& operator=(const PipeSignalHeldBack&) = delete;

  private:
    sigset_t signal_;
    sigset_t before_;
    bool wasPending_;
};

const char* levelName(int level) {
    static constexpr std::array<const char*, 4> names{"ERROR", "WARNING", "INFO", "DEBUG"};
    return names[static_cast<std::size_t>(level)];
}

}  // namespace

struct TimedConsoleLoggerFactory::Console {
    class Logger;

    explicit Console(ILogger::LogLevel level)
        : highest(level), output("", std::make_shared<spdlog::sinks::stderr_sink_mt>()) {
        output.set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
        output.set_error_handler([](const std::string&) {});
    }

    /// What matters less is not written.
    std::atomic<ILogger::LogLevel> highest;
    spdlog::logger output;
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
            const auto line = levelName(known) + (" " + name_) + ": " + toConsoleText(message);
            const PipeSignalHeldBack heldBack;
            console_->output.log(spdlog::level::info, line);
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
    console_->output.flush();
}

ILogger::LogLevel TimedConsoleLoggerFactory::getLogLevel() const {
    return console_->highest;
}

void TimedConsoleLoggerFactory::setLogLevel(ILogger::LogLevel level) {
    console_->highest = level;
}

}  // namespace orvx::utility
