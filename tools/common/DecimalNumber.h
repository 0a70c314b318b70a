#pragma once

#include <string>

namespace orvx::tools {

/// Why the text is no decimal number, for a check() of CLI11; empty: it is one. CLI11 would take
/// 010 as octal and 0x10 as hexadecimal.
std::string faultOfDecimal(const std::string& text);

}  // namespace orvx::tools
