// The token that the registry wants to see, which may be replaced while the program runs.
// Everything happens on the main thread; there is no lock.

#include "TokenFile.h"

#include "InputFile.h"

namespace orvx::announce {

TokenFile::TokenFile(std::string name) : name_(std::move(name)) {
    if (!name_.empty()) {
        credentials_ = std::make_shared<communication::HttpCredentials>();
        take(readInputFile(name_, Reading::First));
    }
}

void TokenFile::readAgain() {
    if (!name_.empty()) {
        take(readInputFile(name_, Reading::Again));
    }
}

void TokenFile::take(std::string token) {
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    credentials_->setBearerToken(token);
}

}  // namespace orvx::announce
