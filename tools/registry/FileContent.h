#pragma once

#include <stdexcept>
#include <string>

namespace orvx::registry {

/// A file cannot be used; what() gives its path and the reason.
class FileError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Regular: nothing that could make the reader wait, such as a FIFO or a terminal.
enum class FileKind { Regular, Any };

/// All of a file. Throws a FileError that begins with what the file is for.
std::string contentOf(const char* purpose, const std::string& path,
                      FileKind kind = FileKind::Regular);

}  // namespace orvx::registry
