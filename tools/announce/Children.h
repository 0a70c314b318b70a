#pragma once

#include <sys/types.h>
#include <csignal>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace orvx::announce {

/// Starts child processes and waits for their end. Orphans that this process inherits (as process 1
/// of a container does) are waited for, too.
/// Thread-safety: none. Children may be started while the process has other threads.
class Children {
  public:
    /// Takes the status of waitpid().
    using OnExit = std::function<void(int status)>;

    explicit Children(const sigset_t& mask) : mask_(mask) {}

    /// Starts a program, which is searched for in PATH. It inherits the standard streams, the
    /// working directory, other descriptors, the process group and the environment, but not the
    /// variables that the service manager has set for this process. Throws std::system_error with
    /// the reason.
    pid_t spawn(const std::vector<std::string>& arguments, OnExit onExit);
    /// Starts a probe in a process group of its own. Its stdin is /dev/null; its stdout is stderr.
    pid_t spawnProbe(const std::vector<std::string>& arguments, OnExit onExit);
    /// Kills the process group of a probe; its handler is not called. 0 is ignored.
    void killProbe(pid_t pid);

    /// Call it after SIGCHLD.
    void reap();

  private:
    sigset_t mask_;
    std::map<pid_t, OnExit> exitHandlers_;
};

}  // namespace orvx::announce
