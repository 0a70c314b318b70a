// The library's log on its way to the program's own lines.
// Entered by the library's threads; the level is atomic, everything else constant; there is no
// lock.

#include "LogRelay.h"

namespace orvx::announce {

using utility::ILogger;

class LogRelay::RelayingLogger : public ILogger {
  public:
    explicit RelayingLogger(std::shared_ptr<const Sink> sink) : sink_(std::move(sink)) {}

    void log(const std::string& message, int level) override {
        if (isEnabled(static_cast<LogLevel>(level))) {
            sink_->line(message, level);
        }
    }
    bool isEnabled(LogLevel level) const override { return level <= sink_->level; }

  private:
    const std::shared_ptr<const Sink> sink_;
};

std::shared_ptr<ILogger> LogRelay::createLogger(const std::string& /*component*/,
                                                const std::string& /*name*/) {
    return std::make_shared<RelayingLogger>(sink_);
}

}  // namespace orvx::announce
