#pragma once

#include <cstddef>

namespace orvx::testing {

/// Lets allocations fail: those of the library's own threads (by their names, "ORVX_...") and those
/// of a thread that counts itself in; operator new throws, and OpenSSL's get null. All others
/// succeed, so that a test's own do.
class Memory {
  public:
    /// `count` allocations fail after so many have succeeded.
    static void failAfter(std::size_t successes, std::size_t count);
    /// From here on none fails. Returns how many did.
    static std::size_t recover();

    /// The thread's own allocations count while one lives.
    class CountedIn {
      public:
        CountedIn();
        ~CountedIn();
        CountedIn(const CountedIn&) = delete;
        CountedIn& operator=(const CountedIn&) = delete;
    };
    /// The thread's own allocations succeed while one lives.
    class Exempt {
      public:
        Exempt();
        ~Exempt();
        Exempt(const Exempt&) = delete;
        Exempt& operator=(const Exempt&) = delete;
    };
};

}  // namespace orvx::testing
