#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>
#include <stdexcept>

namespace orvx::utility {

/// The exception of the framework: a message and a code. Thrown by value; what() is the message.
class ORVX_EXPORT OrvFoundationException : public std::runtime_error {
  public:
    /// A number for programs; what it means is said where it is thrown.
    using ErrorCode = std::int32_t;

    /// The message is copied.
    OrvFoundationException(const char* message, ErrorCode errorCode);
    OrvFoundationException(const OrvFoundationException&) = default;
    OrvFoundationException& operator=(const OrvFoundationException&) = default;
    ~OrvFoundationException() override;

    /// 0 where the message says all there is to say.
    ErrorCode errorCode() const noexcept { return errorCode_; }

  private:
    ErrorCode errorCode_;
};

}  // namespace orvx::utility
