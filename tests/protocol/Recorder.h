#pragma once

#include <orvx/utility/Mutex.h>

#include <condition_variable>
#include <cstddef>
#include <string>
#include <vector>

namespace orvx::testing {

/// Lines that any thread adds and a test waits for. Thread-safe.
class Recorder {
  public:
    using Lines = std::vector<std::string>;

    void add(std::string line) ORVX_EXCLUDES(mutex_);

    /// Takes out the next `count` lines, in their order. What is not there within ten seconds fails
    /// the test, and is absent.
    Lines take(std::size_t count) ORVX_EXCLUDES(mutex_);
    /// As take(), one; an empty text when none comes.
    std::string next() ORVX_EXCLUDES(mutex_);
    /// Takes out what is there.
    Lines rest() ORVX_EXCLUDES(mutex_);

  private:
    utility::Mutex mutex_;
    std::condition_variable added_;
    Lines lines_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::testing
