// Starts the command and waits for it. fork() is used and not posix_spawn(), because the child
// itself must request the signal that it gets when its parent ends.
// submit() is called by the thread that reads the stream; work() runs on the runner's own thread.
// The lock guards the next text and the running process; it is not held while the command runs.

#include "CommandRunner.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iostream>
#include <system_error>
#include <utility>

#include "GrowingPause.h"

namespace orvx::registry {

namespace {

// The exit statuses that shells use.
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// A file in memory that contains a text. Its offset is at the start.
class MemoryFile {
  public:
    explicit MemoryFile(const std::string& text) : file_(::memfd_create("list", MFD_CLOEXEC)) {
        std::size_t written = 0;
        while (file_ >= 0 && written < text.size()) {
            const auto size = ::pwrite(file_, text.data() + written, text.size() - written,
                                       static_cast<off_t>(written));
            if (size < 0) {
                break;
            }
            written += static_cast<std::size_t>(size);
        }
        if (file_ < 0 || written < text.size()) {
            const int error = errno;
            close();
            throw std::system_error(error, std::generic_category(), "the list cannot be passed on");
        }
    }
    ~MemoryFile() { close(); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    int get() const { return file_; }

  private:
    void close() const {
        if (file_ >= 0) {
            ::close(file_);
        }
    }

    int file_;
};

/// Runs in the forked child, where only async-signal-safe functions may be called.
[[noreturn]] void execute(char* const* arguments, int input, pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) {
        ::_exit(kCannotRun);  // the parent ended before prctl()
    }
    ::dup2(input, STDIN_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    ::execvp(arguments[0], arguments);
    ::_exit(errno == ENOENT ? kNotFound : kCannotRun);
}

}  // namespace

CommandRunner::CommandRunner(std::vector<std::string> command)
    : command_(std::move(command)), thread_([this] { work(); }) {}

CommandRunner::~CommandRunner() {
    {
        const utility::MutexLock lock(mutex_);
        stops_ = true;
        if (pid_ != 0) {
            ::kill(pid_, SIGTERM);
        }
    }
    changed_.notify_one();
    thread_.join();
}

void CommandRunner::submit(const std::string& text) {
    {
        const utility::MutexLock lock(mutex_);
        if (text == text_) {
            return;
        }
        text_ = text;
        isNew_ = true;
    }
    changed_.notify_one();
}

void CommandRunner::work() {
    GrowingPause pause;
    bool hasFailed = false;
    utility::MutexLock lock(mutex_);
    for (;;) {
        const auto retry =
            std::chrono::steady_clock::now() + (hasFailed ? pause.next() : std::chrono::seconds(0));
        while (!isNew_ && !stops_) {
            if (!hasFailed) {
                changed_.wait(lock.native());
            } else if (changed_.wait_until(lock.native(), retry) == std::cv_status::timeout) {
                break;
            }
        }
        if (stops_) {
            return;
        }
        isNew_ = false;
        const std::string text = text_;
        lock.unlock();
        const std::string failure = run(text);
        hasFailed = !failure.empty();
        if (hasFailed) {
            std::cerr << "orvx-registry: " + command_[0] + ": " + failure + '\n' << std::flush;
        } else {
            pause.reset();
        }
        lock.lock();
    }
}

std::string CommandRunner::run(const std::string& text) {
    try {
        const int status = await(start(text));
        if (WIFSIGNALED(status)) {
            return "ended by signal " + std::to_string(WTERMSIG(status));
        }
        const int code = WEXITSTATUS(status);
        return code == 0 ? "" : "ended with exit status " + std::to_string(code);
    } catch (const std::system_error& error) {
        return error.what();
    }
}

pid_t CommandRunner::start(const std::string& text) {
    const MemoryFile input(text);
    std::vector<char*> arguments;
    for (std::string& argument : command_) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    const utility::MutexLock lock(mutex_);  // so that the destructor knows the new process
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        execute(arguments.data(), input.get(), parent);
    }
    if (pid_ < 0) {
        pid_ = 0;
        fail("fork");
    }
    return pid_;
}

int CommandRunner::await(pid_t pid) {
    siginfo_t ended;
    while (::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT) != 0) {
        if (errno != EINTR) {
            fail("waitid");
        }
    }
    const utility::MutexLock lock(mutex_);  // a reaped process must not be signalled
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid_ = 0;
    return status;
}

}  // namespace orvx::registry
