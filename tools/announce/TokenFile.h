#pragma once

#include <orvx/communication/HttpCredentials.h>

#include <memory>
#include <string>

namespace orvx::announce {

/// The token in a file, shown to the registry with every request.
/// Thread-safety: none; the credentials have their own.
class TokenFile {
  public:
    /// With an empty name there is no token. Throws a std::exception that says why the file is of
    /// no use.
    explicit TokenFile(std::string name);

    /// Reads the file, which must be a regular one now; the next request shows what it holds,
    /// without the white space at its end. Throws as the constructor; the old token stays.
    void readAgain();

    /// Null without a file.
    const std::shared_ptr<communication::HttpCredentials>& credentials() const {
        return credentials_;
    }

  private:
    void take(std::string token);

    std::string name_;
    std::shared_ptr<communication::HttpCredentials> credentials_;
};

}  // namespace orvx::announce
