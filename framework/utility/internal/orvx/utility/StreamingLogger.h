#pragma once

#include <orvx/utility/ILogger.h>

#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace orvx::utility {

/// Writes log lines with `<<`, in the ASCII digits of the "C" locale whatever the process has set:
/// `logger.logWarning(false) << "retry " << 3;`
///
/// Thread-safety: as the ILogger, which is called on the thread that logs. Nothing that an ILogger
/// throws leaves this class: the line is dropped.
class StreamingLogger {
  public:
    /// One line in the making; written when it is destroyed. Without a stream (the level is
    /// disabled, or memory ran out) nothing is written.
    class LogEntry {
      public:
        /// Takes the line over: the other one writes nothing.
        LogEntry(LogEntry&& other) noexcept;
        LogEntry& operator=(LogEntry&&) = delete;
        ~LogEntry();

        /// Appends the text as it is. Without memory the whole line is given up.
        LogEntry& operator<<(std::string_view text) noexcept;
        /// Appends a whole number in decimal digits.
        template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer> &&
                                                                !std::is_same_v<Integer, bool> &&
                                                                !std::is_same_v<Integer, char>>>
        LogEntry& operator<<(Integer number) noexcept {
            char digits[24];
            const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
            return *this << std::string_view(digits, static_cast<std::size_t>(end - digits));
        }

      private:
        friend class StreamingLogger;
        LogEntry(std::shared_ptr<ILogger> logger, ILogger::LogLevel level,
                 bool evenIfDisabled) noexcept;

        std::shared_ptr<ILogger> logger_;
        ILogger::LogLevel level_;
        std::optional<std::string> stream_;
    };

    /// A null logger is allowed: nothing is written then.
    explicit StreamingLogger(std::shared_ptr<ILogger> logger) noexcept;

    /// A line at that level, to be filled with `<<`. `evenIfDisabled` hands it to the logger
    /// without asking it first whether the level is enabled; the logger may still drop it.
    LogEntry logInfo(bool evenIfDisabled) const noexcept;
    /// As logInfo(), for what is odd and went on.
    LogEntry logWarning(bool evenIfDisabled) const noexcept;
    /// As logInfo(), for what failed.
    LogEntry logError(bool evenIfDisabled) const noexcept;

    /// ILogger::log(), directly; what it throws is dropped.
    void log(const char* message, int level) const noexcept;
    /// ILogger::isInfoEnabled(), directly; false when that throws.
    bool isInfoEnabled() const noexcept;

  private:
    std::shared_ptr<ILogger> logger_;
};

}  // namespace orvx::utility
