#pragma once

#include <cstddef>

namespace orvx::testing {

/// Makes allocations fail: those of the library's own threads (by their names, "ORVX_...") and
/// those of a thread that is counted. operator new throws, and OpenSSL's allocations return null.
/// All others succeed, including those of the test.
class Memory {
  public:
    /// The next `successes` allocations succeed, and `count` allocations after them fail.
    static void failAfter(std::size_t successes, std::size_t count);
    /// Makes all later allocations succeed. Returns how many have failed.
    static std::size_t recover();

    /// The thread's own allocations are counted while an object lives.
    class CountedIn {
      public:
        CountedIn();
        ~CountedIn();
        CountedIn(const CountedIn&) = delete;
        CountedIn& operator=(const CountedIn&) = delete;
    };
    /// The thread's own allocations succeed while an object lives.
    class Exempt {
      public:
        Exempt();
        ~Exempt();
        Exempt(const Exempt&) = delete;
        Exempt& operator=(const Exempt&) = delete;
    };
};

}  // namespace orvx::testing
