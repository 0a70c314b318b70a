#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace orvx::testing {

/// Decides about the look-ups (getaddrinfo) of this process for names with certain endings, and
/// leaves those of other names alone (a trailing dot makes no difference):
/// - ".silent.test": no answer until release() or for `atMost`, then EAI_AGAIN
/// - ".unknown.test": EAI_NONAME at once
/// - ".both.test": ::1 and 127.0.0.1, in this order, at once
/// - ".crowd.test": 127.0.0.2 99 times, then 127.0.0.1, at once
/// - ".several.test": 127.0.0.2, 127.0.0.1, and ::1, in this order, at once
/// - ".replicas.test": 127.0.0.1, 127.0.0.2, and 127.0.0.3, in this order, at once
///
/// Silence needs an object; without one silent names fail at once. One object at a time. Works for
/// libraries too: an executable's getaddrinfo comes before that of the C library. Thread-safe.
class DeadResolver {
  public:
    explicit DeadResolver(std::chrono::seconds atMost = std::chrono::seconds(30));
    /// Calls release().
    ~DeadResolver();
    DeadResolver(const DeadResolver&) = delete;
    DeadResolver& operator=(const DeadResolver&) = delete;

    /// Ends the silence permanently: when it returns, the waiting look-ups have failed, and later
    /// ones fail immediately.
    void release();

    /// The names with these endings that were looked up since construction, in order, including the
    /// waiting look-ups.
    std::vector<std::string> lookups() const;
    /// The number of look-ups that wait for an answer.
    std::size_t waiting() const;
    /// Waits until there are at least `count` lookups(). Returns false after the time-out.
    bool waitForLookups(std::size_t count,
                        std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
};

}  // namespace orvx::testing
