#pragma once

#include <string>

namespace orvx::announce {

/// At the start of the program reading may block; when it is reloaded it must not.
enum class Reading { Initial, Reload };

/// Returns the content of the file. A pipe or another stream is accepted initially; a reload
/// accepts only a regular file, and does not block otherwise. Throws a std::exception that names
/// the file and the reason if it cannot be read or is larger than 16 MiB.
std::string readInputFile(const std::string& name, Reading reading);

}  // namespace orvx::announce
