#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>
#include <stdexcept>

namespace orvx::utility {

/// The exception of the framework: a message and a code. Thrown by value; what() is the message.
class ORVX_EXPORT OrvFoundationException : public std::runtime_error {
  public:
    /// A number for programs. The function that throws documents its meaning.
    using ErrorCode = std::int32_t;

    /// Copies the message.
    OrvFoundationException(const char* message, ErrorCode errorCode);
    OrvFoundationException(const OrvFoundationException&) = default;
    OrvFoundationException& operator=(const OrvFoundationException&) = default;
    ~OrvFoundationException() override;

    /// The code; 0 if the message contains all information.
    ErrorCode errorCode() const noexcept { return errorCode_; }

  private:
    ErrorCode errorCode_;
};

}  // namespace orvx::utility
