// What the logger interfaces have by themselves. Their destructors are here so that their virtual
// tables have one home.
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
