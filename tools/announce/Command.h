#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Children.h"

namespace orvx::announce {

/// The command that is run beside the announcement.
/// Thread-safety: none.
class Command {
  public:
    explicit Command(Children& children) : children_(children) {}

    /// Throws std::system_error with the reason.
    void start(const std::vector<std::string>& arguments, std::function<void()> ended);
    /// Does nothing when it does not run.
    void signal(int number) const;

    bool isRunning() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    /// As a shell says it: its exit status, or 128 and the number of the signal that ended it.
    int exitCode() const { return exitCode_; }

  private:
    Children& children_;
    pid_t pid_ = 0;
    int exitCode_ = 0;
};

}  // namespace orvx::announce
