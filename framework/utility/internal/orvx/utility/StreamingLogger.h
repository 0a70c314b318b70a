#pragma once

#include <orvx/utility/ILogger.h>

#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace orvx::utility {

/// Writes log lines with `<<`. Numbers are written in ASCII digits, whatever the process's locale
/// is:
/// `logger.logWarning(false) << "retry " << 3;`
///
/// Thread-safety: that of the ILogger, which is called on the thread that logs. Exceptions of the
/// ILogger do not leave this class: the line is dropped.
class StreamingLogger {
  public:
    /// One line that is being composed; the destructor writes it. Nothing is written if the level
    /// is disabled or memory runs out.
    class LogEntry {
      public:
        /// Takes over the line: `other` writes nothing.
        LogEntry(LogEntry&& other) noexcept;
        LogEntry& operator=(LogEntry&&) = delete;
        ~LogEntry();

        /// Appends the text unchanged. If memory runs out, the whole line is dropped.
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

    /// `logger` may be null: nothing is written then.
    explicit StreamingLogger(std::shared_ptr<ILogger> logger) noexcept;

    /// Starts an info line, to be completed with `<<`. If `evenIfDisabled` is set, the logger is
    /// not asked whether the level is enabled; it may still drop the line.
    LogEntry logInfo(bool evenIfDisabled) const noexcept;
    /// As logInfo(), for a condition that is unusual but no failure.
    LogEntry logWarning(bool evenIfDisabled) const noexcept;
    /// As logInfo(), for a failure.
    LogEntry logError(bool evenIfDisabled) const noexcept;

    /// Calls ILogger::log(); exceptions are dropped.
    void log(const char* message, int level) const noexcept;
    /// Calls ILogger::isInfoEnabled(); false if that throws.
    bool isInfoEnabled() const noexcept;

  private:
    std::shared_ptr<ILogger> logger_;
};

}  // namespace orvx::utility
