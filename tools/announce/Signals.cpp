// Receives signals through signalfd().
// Runs on the main thread; there is no lock.

#include "Signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace orvx::announce {

namespace {

bool isIgnored(int number) {
    struct sigaction action {};
    ::sigaction(number, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

sigset_t handledSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    for (const int number : {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2}) {
        if (!isIgnored(number)) {
            sigaddset(&set, number);
        }
    }
    return set;
}

}  // namespace

Signals::Signals(EventLoop& loop, Handler handler) : handler_(std::move(handler)) {
    ::signal(SIGCHLD, SIG_DFL);  // if it is ignored, waitpid() gets no status
    sigset_t set = handledSignals();
    descriptor_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor_ < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    // write() reports EPIPE or EFBIG; SIG_IGN would be inherited by the command.
    sigaddset(&set, SIGPIPE);
    sigaddset(&set, SIGXFSZ);
    ::pthread_sigmask(SIG_BLOCK, &set, &original_);
    loop.watch(descriptor_, [this] { read(); });
}

Signals::~Signals() {
    ::close(descriptor_);
}

void Signals::read() const {
    signalfd_siginfo info{};
    while (::read(descriptor_, &info, sizeof info) == sizeof info) {
        handler_(static_cast<int>(info.ssi_signo), info.ssi_code == SI_KERNEL);
    }
}

}  // namespace orvx::announce
