#pragma once

#include <stdexcept>
#include <string>

namespace orvx::registry {

/// A file cannot be used; what() gives its path and the reason.
class FileError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// All of a file. Throws a FileError that begins with what the file is for.
std::string contentOf(const char* purpose, const std::string& path);

}  // namespace orvx::registry
