// The command from its start to its end.
// Everything happens on the main thread; there is no lock.

#include "Command.h"

#include <sys/wait.h>

#include "ExitCodes.h"

namespace orvx::announce {

void Command::start(const std::vector<std::string>& arguments, std::function<void()> ended) {
    pid_ = children_.spawn(arguments, [this, ended = std::move(ended)](int status) {
        pid_ = 0;
        exitCode_ = WIFSIGNALED(status) ? kSignalled + WTERMSIG(status) : WEXITSTATUS(status);
        ended();
    });
}

void Command::signal(int number) const {
    if (pid_ > 0) {
        ::kill(pid_, number);  // it is not waited for yet: the number is still its own
    }
}

}  // namespace orvx::announce
