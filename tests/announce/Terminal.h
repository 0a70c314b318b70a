#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvx::announce {

/// Runs a program in the foreground of a new terminal. Every operation that waits throws a
/// std::runtime_error after ten seconds of silence. The destructor kills a program that still runs.
/// Thread-safety: none.
class Terminal {
  public:
    explicit Terminal(std::vector<std::string> arguments);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void type(const std::string& keys) const;
    void await(const std::string& wanted);
    /// Waits for the end. Returns the exit code, or -1 if a signal ended the program.
    int wait();
    /// Hangs up, and waits for the end, for at most thirty seconds. Returns as wait() does.
    int hangUp();
    const std::string& text() const { return text_; }

  private:
    bool readMore();

    int terminal_ = -1;
    pid_t pid_ = 0;
    std::string text_;
};

}  // namespace orvx::announce
