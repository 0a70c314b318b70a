// Reads a whole file. Entered by any thread; there is no state and no lock.

#include "FileError.h"

#include <fstream>
#include <sstream>

namespace orvx::registry {

std::string contentOf(const char* purpose, const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (file.peek() != std::ifstream::traits_type::eof()) {  // inserting nothing is a failure
        text << file.rdbuf();
    }
    if (!file.is_open() || file.bad() || text.fail()) {
        throw FileError(std::string(purpose) + ' ' + path + ": it cannot be read");
    }
    return text.str();
}

}  // namespace orvx::registry
