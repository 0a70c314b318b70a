#pragma once

#include "RecordingLogger.h"

namespace orvx::testing {

/// Creates loggers that record all lines, but report that info output is disabled.
class NoInfoLoggerFactory : public RecordingLoggerFactory {
  public:
    std::shared_ptr<utility::ILogger> createLogger(const std::string& component,
                                                   const std::string& name) override {
        return std::make_shared<Logger>(RecordingLoggerFactory::createLogger(component, name));
    }

  private:
    class Logger : public utility::ILogger {
      public:
        explicit Logger(std::shared_ptr<utility::ILogger> logger) : logger_(std::move(logger)) {}
        void log(const std::string& text, int level) override { logger_->log(text, level); }
        bool isEnabled(LogLevel level) const override { return logger_->isEnabled(level); }
        bool isInfoEnabled() const override { return false; }

      private:
        std::shared_ptr<utility::ILogger> logger_;
    };
};

}  // namespace orvx::testing
