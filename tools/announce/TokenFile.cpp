// The token that the registry wants to see, which may be replaced while the program runs.
// Everything happens on the main thread; there is no lock.

#include "TokenFile.h"

#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

namespace orvx::announce {

TokenFile::TokenFile(std::string name) : name_(std::move(name)) {
    if (!name_.empty()) {
        credentials_ = std::make_shared<communication::HttpCredentials>();
        read();
    }
}

void TokenFile::read() {
    if (name_.empty()) {
        return;
    }
    std::ifstream stream(name_);
    if (!stream) {
        throw std::system_error(errno, std::generic_category(), name_);
    }
    std::string token{std::istreambuf_iterator<char>(stream), {}};
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    credentials_->setBearerToken(token);
}

}  // namespace orvx::announce
