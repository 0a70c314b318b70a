#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>
#include <string>

namespace orvx::utility {

/// The destination of log lines. Implement it to forward lines to your own log.
///
/// Thread-safety: every operation may be called from any thread, several at once.
/// The caller may hold a lock while it logs: an implementation must neither call the object that
/// logs (the registry client, its context) nor wait for a thread that does. It may throw:
/// StreamingLogger drops the line then.
class ORVX_EXPORT ILogger {
  public:
    /// Levels; a higher number is less important. A logger writes lines of its own level and of all
    /// lower numbers.
    enum class LogLevel : std::int32_t {
        Off = -1,
        Error = 0,
        Warning = 1,
        Info = 2,
        Debug = 3,
    };

    virtual ~ILogger();

    /// Writes one line. `message` is the text without an end of line. It may contain bytes from the
    /// network: escape them for a terminal. `level` is the number of a LogLevel; a level that is
    /// not enabled writes nothing.
    virtual void log(const std::string& message, int level) = 0;

    /// Whether lines of `level` are written.
    virtual bool isEnabled(LogLevel level) const = 0;

    /// Whether info lines are written. The default implementation calls isEnabled().
    virtual bool isInfoEnabled() const;
};

/// Contains the default level of loggers.
struct Logger {
    /// Info: nothing is written in normal operation; a retry or a re-registration writes a line.
    static constexpr ILogger::LogLevel DEFAULT_LOG_LEVEL = ILogger::LogLevel::Info;
};

}  // namespace orvx::utility
