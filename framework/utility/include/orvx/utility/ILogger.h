#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>
#include <string>

namespace orvx::utility {

/// Where log lines go. Implement it to bring them into your own log.
///
/// Thread-safety: every operation may be called from any thread, several at once.
/// A line may be written while the caller holds a lock of its own: an implementation must neither
/// call back into the object that logs (the registry client, its context) nor wait for a thread
/// that does. It may throw: whoever logs through StreamingLogger drops the line and goes on.
class ORVX_EXPORT ILogger {
  public:
    /// The less a level matters, the higher its number. A logger at a level writes that level and
    /// all below it.
    enum class LogLevel : std::int32_t {
        Off = -1,
        Error = 0,
        Warning = 1,
        Info = 2,
        Debug = 3,
    };

    virtual ~ILogger();

    /// Writes one line. `message` is the exact text, without an end of line, and may hold bytes
    /// that came from the network: escape them where they meet a terminal. `level` is the number of
    /// a LogLevel; a level that is not enabled writes nothing.
    virtual void log(const std::string& message, int level) = 0;

    /// Whether lines of `level` are written at all.
    virtual bool isEnabled(LogLevel level) const = 0;

    /// Whether info output is enabled; unless overridden, what isEnabled() says of it.
    virtual bool isInfoEnabled() const;
};

/// Holds the level that loggers have unless told otherwise.
struct Logger {
    /// Info: nothing is written while all goes well; a retry or a re-registration is a line.
    static constexpr ILogger::LogLevel DEFAULT_LOG_LEVEL = ILogger::LogLevel::Info;
};

}  // namespace orvx::utility
