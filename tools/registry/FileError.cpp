// Reads a whole file. Entered by any thread; there is no state and no lock.

#include "FileError.h"

#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

namespace orvx::registry {

std::string contentOf(const char* purpose, const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    const std::string reason = errno == 0 ? "" : ": " + std::generic_category().message(errno);
    std::ostringstream text;
    if (file.peek() != std::ifstream::traits_type::eof()) {  // inserting nothing is a failure
        text << file.rdbuf();
    }
    if (!file.is_open() || file.bad() || text.fail()) {
        throw FileError(std::string(purpose) + ' ' + path + ": it cannot be read" + reason);
    }
    return text.str();
}

}  // namespace orvx::registry
