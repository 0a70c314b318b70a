#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvx::registry {

/// Base64 with padding and without line breaks (RFC 4648, section 4), as JSON holds bytes.
std::string encode64(std::string_view bytes);

/// Empty for a text that is not base64 of that form.
std::optional<std::string> decode64(std::string_view text);

}  // namespace orvx::registry
