#pragma once

#include <string>
#include <string_view>

namespace orvx::utility {

/// `text` as a terminal may be shown it: escaped and cut as TimedConsoleLoggerFactory says. Always
/// UTF-8: neither a character nor an escape is ever cut in two.
std::string toConsoleText(std::string_view text);

}  // namespace orvx::utility
