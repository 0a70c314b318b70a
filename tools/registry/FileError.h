#pragma once

#include <stdexcept>

namespace orvx::registry {

/// A file that was named and cannot be used; what() names it and says why.
class FileError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace orvx::registry
