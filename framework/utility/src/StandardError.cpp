// Writes to standard error without blocking, whatever kind of file it is. O_NONBLOCK belongs to the
// open file description, which other processes share. So a pipe, a terminal or a device is opened
// again for each write, to set the flag on our own description. For a socket the flag is set in
// each call, and a regular file never blocks.
// Entered by any thread; no state, no lock.

#include "StandardError.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>

namespace orvx::utility {

namespace {

/// Blocks SIGPIPE, which ends a process that writes to a pipe without a reader.
class ScopedSigpipeBlock {
  public:
    ScopedSigpipeBlock() {
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signal_, &before_);
    }
    ~ScopedSigpipeBlock() {
        const timespec atOnce{};
        while (!wasPending_ && sigtimedwait(&signal_, nullptr, &atOnce) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    ScopedSigpipeBlock(const ScopedSigpipeBlock&) = delete;
    ScopedSigpipeBlock& operator=(const ScopedSigpipeBlock&) = delete;

  private:
    sigset_t signal_;
    sigset_t before_;
    bool wasPending_;
};

/// The number of bytes of `text` that are done, from the result of a write.
std::size_t bytesDone(ssize_t result, std::string_view text) {
    if (result >= 0) {
        return static_cast<std::size_t>(result);
    }
    return errno == EAGAIN || errno == EINTR ? 0 : text.size();
}

bool isReady() {
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    return poll(&standardError, 1, 0) == 1;
}

/// What is ready takes some bytes without blocking, unless another writer is faster: a pipe
/// PIPE_BUF of them, a terminal one.
std::size_t writeWhenReady(std::string_view text) {
    const std::size_t most = isatty(STDERR_FILENO) == 1 ? 1 : PIPE_BUF;
    std::size_t done = 0;
    while (done < text.size() && isReady()) {
        const auto rest = text.substr(done);
        const auto count =
            bytesDone(write(STDERR_FILENO, rest.data(), std::min(rest.size(), most)), rest);
        if (count == 0) {
            break;
        }
        done += count;
    }
    return done;
}

std::size_t writeToNewDescriptor(std::string_view text, MayWait mayWait) {
    const int opened = open("/proc/thread-self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (opened < 0) {
        const bool isReaderGone = errno == ENXIO;
        return isReaderGone ? text.size() : mayWait == MayWait::Yes ? writeWhenReady(text) : 0;
    }
    const auto done = bytesDone(write(opened, text.data(), text.size()), text);
    close(opened);
    return done;
}

}  // namespace

std::size_t writeToStandardError(std::string_view text, MayWait mayWait) noexcept {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0) {
        return text.size();  // standard error is closed
    }
    if (S_ISSOCK(status.st_mode)) {
        return bytesDone(send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
                         text);
    }
    if (S_ISREG(status.st_mode)) {
        return bytesDone(write(STDERR_FILENO, text.data(), text.size()), text);
    }
    const ScopedSigpipeBlock blocked;
    return writeToNewDescriptor(text, mayWait);
}

}  // namespace orvx::utility
