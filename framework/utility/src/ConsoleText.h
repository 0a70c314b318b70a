#pragma once

#include <string>
#include <string_view>

namespace orvx::utility {

/// Escapes and cuts `text` for a terminal as documented at TimedConsoleLoggerFactory. The result is
/// valid UTF-8: neither a character nor an escape is cut.
std::string toConsoleText(std::string_view text);

}  // namespace orvx::utility
