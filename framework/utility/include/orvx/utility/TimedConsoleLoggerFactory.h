#pragma once

#include <orvx/utility/ILoggerFactory.h>

namespace orvx::utility {

/// Loggers that write timed lines to standard error:
/// "2026-01-31 12:00:00.123 WARNING OrvxServiceRegistryClient.OrvServiceRegistryClient: text".
///
/// What a terminal could mistake for a command or for a second line is escaped here, and here only:
/// a byte below 0x20, 0x7F, a C1 control character, a control of the writing direction (such as
/// U+202E) and a byte that is not UTF-8 appear as "\xHH", a line feed as "\n", a backslash as "\\".
/// A text of more than 4096 bytes is cut and ends in "... (N bytes more)".
/// A line that cannot be written is dropped in silence.
///
/// Nobody who logs ever waits for a reader. What standard error does not take at once is queued, up
/// to 256 KiB, and written in its order by a thread of the factory's own ("ORVX_Console"), which is
/// started then. What is logged while the queue is full is dropped until all of it is written, and
/// counted in one line after it. flush(), and the end of the factory and the last of its loggers,
/// wait a second at most for the queue to be written; what is left then is lost.
/// In a forked child, loggers write lines of the child's own only.
class ORVX_EXPORT TimedConsoleLoggerFactory : public ILoggerFactory {
  public:
    /// Lines of `level` and of what matters more are written.
    explicit TimedConsoleLoggerFactory(ILogger::LogLevel level);
    ~TimedConsoleLoggerFactory() override;
    TimedConsoleLoggerFactory(const TimedConsoleLoggerFactory&) = delete;
    TimedConsoleLoggerFactory& operator=(const TimedConsoleLoggerFactory&) = delete;

    std::shared_ptr<ILogger> createLogger(const std::string& component,
                                          const std::string& name) override;
    void flush() override;
    ILogger::LogLevel getLogLevel() const override;
    void setLogLevel(ILogger::LogLevel level) override;

  private:
    struct Console;
    std::shared_ptr<Console> console_;
};

}  // namespace orvx::utility
