// The framework's exception. The destructor is here so that its type information has one home and
// it can be caught across shared libraries.
// Entered by any thread; no lock.

#include <orvx/utility/OrvFoundationException.h>

namespace orvx::utility {

OrvFoundationException::OrvFoundationException(const char* message, ErrorCode errorCode)
    : std::runtime_error(message), errorCode_(errorCode) {}

OrvFoundationException::~OrvFoundationException() = default;

}  // namespace orvx::utility
