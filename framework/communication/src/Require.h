#pragma once

#include <orvx/communication/RequestTarget.h>
#include <orvx/utility/OrvFoundationException.h>

#include <string>

namespace orvx::communication {

/// Throws utility::OrvFoundationException with the message unless `isValid`.
inline void require(bool isValid, const std::string& message) {
    if (!isValid) {
        throw utility::OrvFoundationException(message.c_str(), 0);
    }
}

inline void requireText(const std::string& text, const std::string& name) {
    require(!hasControlCharacter(text), name + " must not contain control characters.");
}

}  // namespace orvx::communication
