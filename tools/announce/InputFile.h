#pragma once

#include <string>

namespace orvx::announce {

/// Whether the program starts, and may wait for its input, or already serves and must not wait.
enum class Reading { First, Again };

/// All that the file holds. The first time it may also be a pipe or another stream; when it is read
/// again, a file that is not regular is refused without waiting. Throws a std::exception that names
/// the file and tells why it cannot be read, or that it is larger than 16 MiB.
std::string readInputFile(const std::string& name, Reading reading);

}  // namespace orvx::announce
