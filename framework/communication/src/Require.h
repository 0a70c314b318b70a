#pragma once

#include <orvx/communication/RequestTarget.h>
#include <orvx/utility/OrvFoundationException.h>

#include <string>

namespace orvx::communication {

/// Throws utility::OrvFoundationException with that sentence unless it is fine.
inline void require(bool isFine, const std::string& otherwise) {
    if (!isFine) {
        throw utility::OrvFoundationException(otherwise.c_str(), 0);
    }
}

inline void requireText(const std::string& text, const std::string& name) {
    require(!hasControlCharacter(text), name + " must not contain control characters.");
}

}  // namespace orvx::communication
