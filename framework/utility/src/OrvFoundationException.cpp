// The framework's exception. Defines the destructor, so that the type information is emitted once
// and the exception can be caught across shared libraries.
// Entered by any thread; no lock.

#include <orvx/utility/OrvFoundationException.h>

namespace orvx::utility {

OrvFoundationException::OrvFoundationException(const char* message, ErrorCode errorCode)
    : std::runtime_error(message), errorCode_(errorCode) {}

OrvFoundationException::~OrvFoundationException() = default;

}  // namespace orvx::utility
