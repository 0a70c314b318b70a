// Starts programs and waits for them.
// Runs on the main thread; there is no lock.

#include "Children.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace orvx::announce {

namespace {

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

bool isServiceManagerVariable(const char* variable) {
    for (const char* prefix : {"NOTIFY_SOCKET=", "WATCHDOG_USEC=", "WATCHDOG_PID="}) {
        if (std::strncmp(variable, prefix, std::strlen(prefix)) == 0) {
            return true;
        }
    }
    return false;
}

std::vector<char*> childEnvironment() {
    std::vector<char*> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (!isServiceManagerVariable(*variable)) {
            variables.push_back(*variable);
        }
    }
    variables.push_back(nullptr);
    return variables;
}

/// The attributes and file actions for posix_spawn().
struct Attributes {
    explicit Attributes(const sigset_t& mask) {
        posix_spawnattr_init(&attributes);
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_setsigmask(&attributes, &mask);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    }
    ~Attributes() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    void configureAsProbe() {
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    }

    pid_t spawn(const std::vector<std::string>& arguments) const {
        pid_t pid = 0;
        const int error = ::posix_spawnp(&pid, arguments[0].c_str(), &actions, &attributes,
                                         pointersTo(arguments).data(), childEnvironment().data());
        if (error != 0) {
            throw std::system_error(error, std::generic_category(), arguments[0]);
        }
        return pid;
    }

    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_t actions{};
};

}  // namespace

pid_t Children::spawn(const std::vector<std::string>& arguments, OnExit onExit) {
    const pid_t pid = Attributes(mask_).spawn(arguments);
    exitHandlers_[pid] = std::move(onExit);
    return pid;
}

pid_t Children::spawnProbe(const std::vector<std::string>& arguments, OnExit onExit) {
    Attributes attributes(mask_);
    attributes.configureAsProbe();
    const pid_t pid = attributes.spawn(arguments);
    exitHandlers_[pid] = std::move(onExit);
    return pid;
}

void Children::killProbe(pid_t pid) {
    if (exitHandlers_.erase(pid) > 0) {
        ::kill(-pid, SIGKILL);
    }
}

void Children::reap() {
    int status = 0;
    for (pid_t pid = 0; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;) {
        const auto found = exitHandlers_.find(pid);
        if (found != exitHandlers_.end()) {
            const OnExit onExit = std::move(found->second);
            exitHandlers_.erase(found);
            onExit(status);
        }
    }
}

}  // namespace orvx::announce
