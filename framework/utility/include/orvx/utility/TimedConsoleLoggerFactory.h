#pragma once

#include <orvx/utility/ILoggerFactory.h>

namespace orvx::utility {

/// Makes loggers that write lines with a time to standard error:
/// "2026-01-31 12:00:00.123 WARNING OrvxServiceRegistryClient.OrvServiceRegistryClient: text".
///
/// Characters that a terminal could interpret as a command or as a second line are escaped here,
/// and only here: a byte below 0x20, 0x7F, a C1 control character, a control of the writing
/// direction (such as U+202E) and a byte that is not UTF-8 are written as "\xHH", a line feed as
/// "\n", a backslash as "\\".
/// A text of more than 4096 bytes is cut and ends with "... (N bytes more)".
/// A line that cannot be written is dropped silently.
///
/// Logging never waits for a reader of standard error. Bytes that standard error does not take at
/// once are queued, up to 256 KiB, and written in order by a thread of the factory
/// ("ORVX_Console"), which is started on demand. Once the queue is full, lines are dropped until it
/// is empty; one line with their number follows. flush(), and the destruction of the factory and of
/// its last logger, wait at most one second for the queue to be written; the rest is lost.
/// In a forked child, loggers write only lines of the child.
class ORVX_EXPORT TimedConsoleLoggerFactory : public ILoggerFactory {
  public:
    /// Lines of `level` and of more important levels are written.
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
