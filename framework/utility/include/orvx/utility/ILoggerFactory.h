#pragma once

#include <orvx/utility/ILogger.h>

#include <memory>
#include <string>

namespace orvx::utility {

/// Makes loggers that share a destination and a level.
/// Thread-safety: every operation may be called from any thread, several at once.
/// The order of the virtual operations is part of the binary interface.
class ORVX_EXPORT ILoggerFactory {
  public:
    virtual ~ILoggerFactory();

    /// A logger for `name` within `component`, e.g. ("OrvxServiceRegistryClient", "Session").
    /// Never null. The logger may outlive the factory.
    virtual std::shared_ptr<ILogger> createLogger(const std::string& component,
                                                  const std::string& name) = 0;

    /// Returns when the lines written so far are where they belong.
    virtual void flush() = 0;

    /// The level that all loggers of this factory have.
    virtual ILogger::LogLevel getLogLevel() const = 0;

    /// Takes effect at once, for loggers already made too.
    virtual void setLogLevel(ILogger::LogLevel level) = 0;
};

}  // namespace orvx::utility
