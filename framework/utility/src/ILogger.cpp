// Default operations of the logger interfaces. Defines their virtual destructors, so that the
// virtual tables are emitted once.
// Entered by any thread; no lock.

#include <orvx/utility/ILogger.h>

#include <orvx/utility/ILoggerFactory.h>

namespace orvx::utility {

ILogger::~ILogger() = default;

bool ILogger::isInfoEnabled() const {
    return isEnabled(LogLevel::Info);
}

ILoggerFactory::~ILoggerFactory() = default;

}  // namespace orvx::utility
