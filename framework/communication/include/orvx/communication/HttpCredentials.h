#pragma once

#include <orvx/utility/Export.h>
#include <orvx/utility/Mutex.h>

#include <string>

namespace orvx::communication {

/// What a client shows to be let in: a bearer token, a user and a password, or, as at first,
/// nothing. It may be replaced at any time; the next request that is sent shows the new value.
///
/// The library never logs it, and no exception's text contains it. Over plain HTTP everybody on the
/// way can read it.
///
/// Thread-safety: every operation may be called from any thread. The setters throw
/// utility::OrvFoundationException, and have changed nothing then.
class ORVX_EXPORT HttpCredentials {
  public:
    /// "Bearer". The token must not be empty, nor hold control characters such as the line end of
    /// the file that it was read from.
    void setBearerToken(const std::string& token) ORVX_EXCLUDES(mutex_);
    /// "Basic". Neither may hold control characters, nor the user a colon.
    void setBasic(const std::string& user, const std::string& password) ORVX_EXCLUDES(mutex_);
    /// Shows nothing from here on.
    void clear() ORVX_EXCLUDES(mutex_);

    /// For sessions: what goes into the header, or an empty text.
    std::string headerValue() const ORVX_EXCLUDES(mutex_);

  private:
    void set(std::string headerValue) ORVX_EXCLUDES(mutex_);

    mutable utility::Mutex mutex_;
    std::string headerValue_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::communication
