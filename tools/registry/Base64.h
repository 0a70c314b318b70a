#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvx::registry {

/// Encodes bytes in base64 with padding and without line breaks (RFC 4648, section 4).
std::string encode64(std::string_view bytes);

/// Decodes a text of that form. Returns nothing for any other text, such as one with spaces or
/// without padding.
std::optional<std::string> decode64(std::string_view text);

}  // namespace orvx::registry
