// Reads the token for the registry, which may be replaced while the program runs.
// Runs on the main thread; there is no lock.

#include "TokenFile.h"

#include "InputFile.h"

namespace orvx::announce {

TokenFile::TokenFile(std::string name) : name_(std::move(name)) {
    if (!name_.empty()) {
        credentials_ = std::make_shared<communication::HttpCredentials>();
        setToken(readInputFile(name_, Reading::Initial));
    }
}

void TokenFile::reload() {
    if (!name_.empty()) {
        setToken(readInputFile(name_, Reading::Reload));
    }
}

void TokenFile::setToken(std::string token) {
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    credentials_->setBearerToken(token);
}

}  // namespace orvx::announce
