// A pseudo terminal. Entered by the thread that owns it; no lock.
#include "Terminal.h"

#include "Eventually.h"

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace orvx::announce {

Terminal::Terminal(std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    pid_ = ::forkpty(&terminal_, nullptr, nullptr, nullptr);
    if (pid_ == 0) {
        ::setenv("TERM", "xterm", 1);  // a dumb terminal gets no colours
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
}

Terminal::~Terminal() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    ::close(terminal_);
}

void Terminal::type(const std::string& keys) const {
    [[maybe_unused]] const auto size = ::write(terminal_, keys.data(), keys.size());
}

void Terminal::await(const std::string& wanted) {
    while (text_.find(wanted) == std::string::npos) {
        if (!readMore()) {
            throw std::runtime_error("no \"" + wanted + "\" in: " + text_);
        }
    }
}

int Terminal::wait() {
    while (readMore()) {
    }
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Terminal::hangUp() {
    ::close(std::exchange(terminal_, -1));
    int status = 0;
    if (!testing::eventually([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; })) {
        throw std::runtime_error("no end after the terminal has hung up");
    }
    pid_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Terminal::readMore() {
    pollfd polled{terminal_, POLLIN, 0};
    if (::poll(&polled, 1, 10'000) != 1) {
        throw std::runtime_error("silence after: " + text_);
    }
    std::array<char, 4096> bytes{};
    const auto size = ::read(terminal_, bytes.data(), bytes.size());
    text_.append(bytes.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
}

}  // namespace orvx::announce
