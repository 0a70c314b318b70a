#pragma once

#include <orvx/utility/ILoggerFactory.h>
#include <orvx/utility/Mutex.h>

#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace orvx::testing {

/// A logged line with the number of its level.
struct LogLine {
    int level;
    std::string text;

    bool operator==(const LogLine& other) const {
        return level == other.level && text == other.text;
    }
    friend std::ostream& operator<<(std::ostream& stream, const LogLine& line) {
        return stream << line.level << ": " << line.text;
    }
};

inline LogLine error(std::string text) {
    return {0, std::move(text)};
}
inline LogLine warning(std::string text) {
    return {1, std::move(text)};
}
inline LogLine info(std::string text) {
    return {2, std::move(text)};
}
/// A complete message, which the client logs with level 0.
inline LogLine message(std::string text) {
    return {0, std::move(text)};
}

/// Records logged lines unchanged.
class RecordingLoggerFactory : public utility::ILoggerFactory {
  public:
    std::shared_ptr<utility::ILogger> createLogger(const std::string& component,
                                                   const std::string& name) override {
        const utility::MutexLock lock(shared_->mutex);
        shared_->names.emplace_back(component, name);
        return std::make_shared<Logger>(shared_);
    }
    void flush() override {}
    utility::ILogger::LogLevel getLogLevel() const override {
        const utility::MutexLock lock(shared_->mutex);
        return shared_->level;
    }
    void setLogLevel(utility::ILogger::LogLevel level) override {
        const utility::MutexLock lock(shared_->mutex);
        shared_->level = level;
    }

    /// The lines since the last call.
    std::vector<LogLine> takeLines() {
        const utility::MutexLock lock(shared_->mutex);
        return std::exchange(shared_->lines, {});
    }
    /// The component and name of each created logger.
    std::vector<std::pair<std::string, std::string>> names() const {
        const utility::MutexLock lock(shared_->mutex);
        return shared_->names;
    }

  private:
    struct Shared {
        utility::Mutex mutex;
        utility::ILogger::LogLevel level ORVX_GUARDED_BY(mutex) = utility::ILogger::LogLevel::Info;
        std::vector<LogLine> lines ORVX_GUARDED_BY(mutex);
        std::vector<std::pair<std::string, std::string>> names ORVX_GUARDED_BY(mutex);
    };

    class Logger : public utility::ILogger {
      public:
        explicit Logger(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}
        void log(const std::string& text, int level) override {
            const utility::MutexLock lock(shared_->mutex);
            if (level <= static_cast<int>(shared_->level)) {
                shared_->lines.push_back({level, text});
            }
        }
        bool isEnabled(LogLevel level) const override {
            const utility::MutexLock lock(shared_->mutex);
            return level <= shared_->level;
        }

      private:
        std::shared_ptr<Shared> shared_;
    };

    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

}  // namespace orvx::testing
