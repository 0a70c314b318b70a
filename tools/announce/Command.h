#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Children.h"

namespace orvx::announce {

/// The command whose services are announced.
/// Thread-safety: none.
class Command {
  public:
    explicit Command(Children& children) : children_(children) {}

    /// Throws std::system_error with the reason.
    void start(const std::vector<std::string>& arguments, std::function<void()> onExit);
    /// Does nothing when the command does not run.
    void signal(int number) const;
    /// Ends it with SIGTERM, or with SIGKILL after `grace`, and waits for its end, without the
    /// loop. SIGCHLD must be blocked.
    void end(std::chrono::milliseconds grace);

    bool isRunning() const { return pid_ > 0; }
    /// Whether it gets the signals that the terminal sends to this process. False when the command
    /// does not run.
    bool sharesProcessGroup() const;
    pid_t pid() const { return pid_; }
    /// The exit status, or, as in a shell, 128 plus the number of the signal that ended the
    /// command.
    int exitCode() const { return exitCode_; }

  private:
    Children& children_;
    pid_t pid_ = 0;
    int exitCode_ = 0;
};

}  // namespace orvx::announce
