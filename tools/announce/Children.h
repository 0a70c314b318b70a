#pragma once

#include <sys/types.h>
#include <csignal>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace orvx::announce {

/// Child processes, from their start to their end. Every child is waited for, those too that are
/// inherited from others (as process 1 of a container inherits them).
/// Thread-safety: none. Children may be started while the process has other threads.
class Children {
  public:
    /// Takes the status as waitpid() gives it.
    using Ended = std::function<void(int status)>;

    explicit Children(const sigset_t& mask) : mask_(mask) {}

    /// Starts a program, found as a shell finds it, with this process's standard streams, directory
    /// and other descriptors, in its process group, and without the variables of NOTIFY_SOCKET,
    /// which are not meant for it. Throws std::system_error with the reason.
    pid_t spawn(const std::vector<std::string>& arguments, Ended ended);
    /// Starts a probe in a process group of its own: it reads nothing, and prints to stderr only.
    pid_t spawnProbe(const std::vector<std::string>& arguments, Ended ended);
    /// Kills a probe with its process group; its end is not told. 0 names none.
    void abandonProbe(pid_t pid);

    /// To be called when SIGCHLD came.
    void reap();

  private:
    sigset_t mask_;
    std::map<pid_t, Ended> ended_;
};

}  // namespace orvx::announce
