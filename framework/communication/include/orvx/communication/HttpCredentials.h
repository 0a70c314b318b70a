#pragma once

#include <orvx/utility/Export.h>
#include <orvx/utility/Mutex.h>

#include <string>

namespace orvx::communication {

/// The credentials of a client: a bearer token, a user and a password, or nothing, which is the
/// default. They may be replaced at any time; the next request that is sent uses the new ones.
///
/// The library never logs credentials, and no exception's text contains them. Plain HTTP transmits
/// them unencrypted.
///
/// Thread-safety: every operation may be called from any thread. The setters throw
/// utility::OrvFoundationException for invalid values and change nothing then.
class ORVX_EXPORT HttpCredentials {
  public:
    /// Uses the scheme "Bearer". The token must not be empty and must not contain control
    /// characters, such as the line feed at the end of a file.
    void setBearerToken(const std::string& token) ORVX_EXCLUDES(mutex_);
    /// Uses the scheme "Basic". Neither value may contain control characters; the user must not
    /// contain a colon.
    void setBasic(const std::string& user, const std::string& password) ORVX_EXCLUDES(mutex_);
    /// Removes the credentials.
    void clear() ORVX_EXCLUDES(mutex_);

    /// For sessions: the value of the header; empty if there are no credentials.
    std::string headerValue() const ORVX_EXCLUDES(mutex_);

  private:
    void set(std::string headerValue) ORVX_EXCLUDES(mutex_);

    mutable utility::Mutex mutex_;
    std::string headerValue_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::communication
