#pragma once

#include <string>

namespace orvx::tools {

/// The first argument that is an option with an empty value: "--name" for "--name=". Empty if there
/// is none. CLI11 would take the argument that follows as the value.
std::string optionWithEmptyValue(const char* const* begin, const char* const* end);

}  // namespace orvx::tools
