// Starts and signals the command.
// Runs on the main thread; there is no lock.

#include "Command.h"

#include <sys/wait.h>
#include <unistd.h>

#include "ExitCodes.h"

namespace orvx::announce {

void Command::start(const std::vector<std::string>& arguments, std::function<void()> onExit) {
    pid_ = children_.spawn(arguments, [this, onExit = std::move(onExit)](int status) {
        pid_ = 0;
        exitCode_ = WIFSIGNALED(status) ? kSignalled + WTERMSIG(status) : WEXITSTATUS(status);
        onExit();
    });
}

void Command::signal(int number) const {
    if (pid_ > 0) {
        ::kill(pid_, number);  // not waited for yet, so the pid is not reused
    }
}

bool Command::sharesProcessGroup() const {
    return pid_ > 0 && ::getpgid(pid_) == ::getpgrp();
}

}  // namespace orvx::announce
