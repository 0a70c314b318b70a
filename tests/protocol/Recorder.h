#pragma once

#include <orvx/utility/Mutex.h>

#include <condition_variable>
#include <cstddef>
#include <string>
#include <vector>

namespace orvx::testing {

/// Lines that any thread adds, and for which a test waits. Thread-safe.
class Recorder {
  public:
    using Lines = std::vector<std::string>;

    void add(std::string line) ORVX_EXCLUDES(mutex_);

    /// Takes the next `count` lines, in order. A line that does not come within ten seconds fails
    /// the test and is absent.
    Lines take(std::size_t count) ORVX_EXCLUDES(mutex_);
    /// As take(1). Returns an empty text if no line comes.
    std::string next() ORVX_EXCLUDES(mutex_);
    /// Takes all lines that have come.
    Lines rest() ORVX_EXCLUDES(mutex_);

  private:
    utility::Mutex mutex_;
    std::condition_variable added_;
    Lines lines_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::testing
