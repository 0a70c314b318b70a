#pragma once

#include <orvx/utility/Mutex.h>
#include <sys/types.h>

#include <condition_variable>
#include <string>
#include <thread>
#include <vector>

namespace orvx::registry {

/// Runs a command with a text on its stdin each time the text changes. There is one run at a time;
/// all changes during a run cause one further run. A run that fails is reported on stderr; the
/// command runs again with the next change, or after a pause that grows from a second to a minute.
///
/// The stdin is a file in memory, so a command need not read it. The command inherits stdout and
/// stderr, but no other descriptor. It gets SIGTERM when this process ends.
///
/// Thread-safety: one thread may call. The runs take place on a thread of its own.
class CommandRunner {
  public:
    /// `command`: a program, which is searched for in PATH, and its arguments.
    explicit CommandRunner(std::vector<std::string> command);
    /// Ends a run by SIGTERM and waits for it.
    ~CommandRunner();
    CommandRunner(const CommandRunner&) = delete;
    CommandRunner& operator=(const CommandRunner&) = delete;

    /// Returns at once. Does nothing if `text` equals the previous text.
    void submit(const std::string& text);

  private:
    void work();
    /// Returns the reason of a failure; empty: none.
    std::string run(const std::string& text);
    pid_t start(const std::string& text);
    int await(pid_t pid);

    std::vector<std::string> command_;
    utility::Mutex mutex_;
    std::condition_variable changed_;
    std::string text_ ORVX_GUARDED_BY(mutex_);
    bool isNew_ ORVX_GUARDED_BY(mutex_) = false;
    bool stops_ ORVX_GUARDED_BY(mutex_) = false;
    pid_t pid_ ORVX_GUARDED_BY(mutex_) = 0;  // of the process that is not reaped yet; 0: none
    std::thread thread_;                     // last: it uses all of the above
};

}  // namespace orvx::registry
