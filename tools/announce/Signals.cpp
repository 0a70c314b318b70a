// Signals as events, by way of signalfd().
// Everything happens on the main thread; there is no lock.

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

sigset_t wanted() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGCHLD);
    for (const int number : {SIGINT, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2}) {
        if (!isIgnored(number)) {
            sigaddset(&set, number);
        }
    }
    return set;
}

}  // namespace

Signals::Signals(EventLoop& loop, Handler handler) : handler_(std::move(handler)) {
    ::signal(SIGCHLD, SIG_DFL);  // where it is ignored nobody learns how a child ended
    sigset_t set = wanted();
    descriptor_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor_ < 0) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    sigaddset(&set, SIGPIPE);  // writing tells by itself; and its disposition is the command's, too
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
