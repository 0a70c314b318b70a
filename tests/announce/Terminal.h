#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvx::announce {

/// A program at a terminal of its own, in whose foreground it is. All that waits throws a
/// std::runtime_error after ten seconds of silence. A program that still runs at the end is killed.
/// Thread-safety: none.
class Terminal {
  public:
    explicit Terminal(std::vector<std::string> arguments);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void type(const std::string& keys) const;
    void await(const std::string& wanted);
    /// The exit code, when it has ended; -1 when a signal ended it.
    int wait();
    const std::string& text() const { return text_; }

  private:
    bool readMore();

    int terminal_ = -1;
    pid_t pid_ = 0;
    std::string text_;
};

}  // namespace orvx::announce
