#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvx::registry {

/// A program as a child process. A function that waits throws a std::runtime_error after thirty
/// seconds without output. The destructor kills a child that still runs.
///
/// Thread-safety: none.
class ChildProcess {
  public:
    struct Result {
        int status;          ///< as waitpid() gives it
        std::string output;  ///< all of stdout
        std::string errors;  ///< all of stderr
    };

    ChildProcess(std::string program, std::vector<std::string> arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const;
    /// Closes its stdin, which is open and empty until then.
    void endInput();
    /// Waits until stdout or stderr contains `text`, and returns all of it so far. Throws if it
    /// ends without `text`.
    const std::string& awaitOutput(const std::string& text);
    const std::string& awaitErrors(const std::string& text);
    /// Waits until the process has ended.
    Result wait();

  private:
    int input_;
    int outputs_[2];  // its stdout and stderr
    std::string texts_[2];
    pid_t pid_;
};

}  // namespace orvx::registry
