#pragma once

#include <orvx/communication/HttpCredentials.h>

#include <memory>
#include <string>

namespace orvx::announce {

/// A file with the token that every request to the registry carries.
/// Thread-safety: none; the credentials have their own.
class TokenFile {
  public:
    /// With an empty name there is no token. Throws a std::exception with the reason if the file or
    /// its token is invalid.
    explicit TokenFile(std::string name);

    /// Reads the file, which must be a regular one, without the white space at its end; the next
    /// request carries the new token. Throws as the constructor does, and then keeps the old token.
    void reload();

    /// Null without a file.
    const std::shared_ptr<communication::HttpCredentials>& credentials() const {
        return credentials_;
    }

  private:
    void setToken(std::string token);

    std::string name_;
    std::shared_ptr<communication::HttpCredentials> credentials_;
};

}  // namespace orvx::announce
