// Starts a program with pipes for its input and output. Reads from them with a time limit. Runs on
// the thread that owns the process.
// There is no lock.

#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace orvx::registry {

namespace {

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        read = ends[0];
        write = ends[1];
    }
    int read;
    int write;
};

/// `files`: its stdin, stdout and stderr.
pid_t spawn(std::vector<std::string> arguments, const std::array<int, 3>& files) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int target = 0; target < 3; ++target) {
        posix_spawn_file_actions_adddup2(&actions, files[static_cast<std::size_t>(target)], target);
    }
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "posix_spawn");
    }
    return pid;
}

/// Returns false at the end of the output.
bool readMore(int pipe, std::string& text) {
    pollfd polled{pipe, POLLIN, 0};
    if (::poll(&polled, 1, 30'000) != 1) {
        throw std::runtime_error("the program was silent for thirty seconds after: " + text);
    }
    std::array<char, 4096> bytes;
    const auto size = ::read(pipe, bytes.data(), bytes.size());
    text.append(bytes.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
}

const std::string& awaitText(int pipe, std::string& text, const std::string& wanted) {
    while (text.find(wanted) == std::string::npos) {
        if (!readMore(pipe, text)) {
            throw std::runtime_error("the program ended without saying \"" + wanted + "\"");
        }
    }
    return text;
}

}  // namespace

ChildProcess::ChildProcess(std::string program, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::move(program));
    const Pipe input;
    const Pipe output;
    const Pipe errors;
    pid_ = spawn(std::move(arguments), {input.read, output.write, errors.write});
    for (const int end : {input.read, output.write, errors.write}) {
        ::close(end);
    }
    input_ = input.write;
    outputs_[0] = output.read;
    outputs_[1] = errors.read;
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    endInput();
    ::close(outputs_[0]);
    ::close(outputs_[1]);
}

void ChildProcess::signal(int number) const {
    ::kill(pid_, number);
}

void ChildProcess::endInput() {
    if (input_ >= 0) {
        ::close(std::exchange(input_, -1));
    }
}

const std::string& ChildProcess::awaitOutput(const std::string& text) {
    return awaitText(outputs_[0], texts_[0], text);
}

const std::string& ChildProcess::awaitErrors(const std::string& text) {
    return awaitText(outputs_[1], texts_[1], text);
}

ChildProcess::Result ChildProcess::wait() {
    for (int i = 0; i < 2; ++i) {
        while (readMore(outputs_[i], texts_[i])) {
        }
    }
    Result result{0, texts_[0], texts_[1]};
    ::waitpid(pid_, &result.status, 0);
    pid_ = 0;
    return result;
}

}  // namespace orvx::registry
