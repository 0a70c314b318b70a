#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace orvx::registry {

/// A program as a child process. All that waits throws a std::runtime_error after thirty seconds in
/// which the program says nothing. A child that still runs at the end is killed.
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
    /// Its stdin, which is open and empty, ends.
    void endInput();
    /// All of stdout and of stderr so far, as soon as they contain `text`. Throws when they end
    /// without it.
    const std::string& awaitOutput(const std::string& text);
    const std::string& awaitErrors(const std::string& text);
    /// When it has ended.
    Result wait();

  private:
    int input_;
    int outputs_[2];  // its stdout and stderr
    std::string texts_[2];
    pid_t pid_;
};

}  // namespace orvx::registry
