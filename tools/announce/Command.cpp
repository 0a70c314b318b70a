// Starts and signals the command.
// Runs on the main thread; there is no lock.

#include "Command.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

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

void Command::end(std::chrono::milliseconds grace) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + grace;
    sigset_t ended;
    sigemptyset(&ended);
    sigaddset(&ended, SIGCHLD);
    signal(SIGTERM);
    while (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            signal(SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            break;
        }
        const timespec time{left.count() / 1000, left.count() % 1000 * 1'000'000};
        ::sigtimedwait(&ended, nullptr, &time);
    }
    pid_ = 0;
}

bool Command::sharesProcessGroup() const {
    return pid_ > 0 && ::getpgid(pid_) == ::getpgrp();
}

}  // namespace orvx::announce
