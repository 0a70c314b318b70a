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

    /// Makes a logger for `name` within `component`, e.g. ("OrvxServiceRegistryClient", "Session").
    /// Never returns null. The logger may outlive the factory.
    virtual std::shared_ptr<ILogger> createLogger(const std::string& component,
                                                  const std::string& name) = 0;

    /// Blocks until all lines written so far have reached their destination.
    virtual void flush() = 0;

    /// The level of all loggers of this factory.
    virtual ILogger::LogLevel getLogLevel() const = 0;

    /// Sets the level of all loggers of this factory, including loggers that were made before.
    virtual void setLogLevel(ILogger::LogLevel level) = 0;
};

}  // namespace orvx::utility
