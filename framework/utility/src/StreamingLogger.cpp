// Log lines that are composed with `<<`.
// Entered by any thread; no lock: an entry belongs to the thread that makes it, and the logger
// synchronises itself. A failure drops the line and never reaches the caller.

#include <orvx/utility/StreamingLogger.h>

#include <utility>

namespace orvx::utility {

StreamingLogger::LogEntry::LogEntry(std::shared_ptr<ILogger> logger, ILogger::LogLevel level,
                                    bool evenIfDisabled) noexcept
    : logger_(std::move(logger)), level_(level) {
    try {
        if (logger_ && (evenIfDisabled || logger_->isEnabled(level_))) {
            stream_.emplace();
        }
    } catch (...) {
        // A logger whose isEnabled() throws does not get the line.
    }
}

StreamingLogger::LogEntry::LogEntry(LogEntry&& other) noexcept
    : logger_(std::move(other.logger_)),
      level_(other.level_),
      stream_(std::exchange(other.stream_, std::nullopt)) {}

StreamingLogger::LogEntry::~LogEntry() {
    try {
        if (stream_) {
            logger_->log(*stream_, static_cast<int>(level_));
        }
    } catch (...) {
        // The line is lost.
    }
}

StreamingLogger::LogEntry& StreamingLogger::LogEntry::operator<<(std::string_view text) noexcept {
    try {
        if (stream_) {
            stream_->append(text);
        }
    } catch (...) {
        stream_.reset();
    }
    return *this;
}

StreamingLogger::StreamingLogger(std::shared_ptr<ILogger> logger) noexcept
    : logger_(std::move(logger)) {}

StreamingLogger::LogEntry StreamingLogger::logInfo(bool evenIfDisabled) const noexcept {
    return {logger_, ILogger::LogLevel::Info, evenIfDisabled};
}

StreamingLogger::LogEntry StreamingLogger::logWarning(bool evenIfDisabled) const noexcept {
    return {logger_, ILogger::LogLevel::Warning, evenIfDisabled};
}

StreamingLogger::LogEntry StreamingLogger::logError(bool evenIfDisabled) const noexcept {
    return {logger_, ILogger::LogLevel::Error, evenIfDisabled};
}

void StreamingLogger::log(const char* message, int level) const noexcept {
    try {
        if (logger_) {
            logger_->log(message, level);
        }
    } catch (...) {
        // The line is lost.
    }
}

bool StreamingLogger::isInfoEnabled() const noexcept {
    try {
        return logger_ && logger_->isInfoEnabled();
    } catch (...) {
        return false;
    }
}

}  // namespace orvx::utility
