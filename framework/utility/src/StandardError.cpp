// Writes to standard error without waiting, whatever it is. O_NONBLOCK belongs to the open file,
// which other processes share: a pipe, a terminal or a device is opened anew for each write, so
// that the flag is our own. A socket takes it with each call, and a file never waits for a reader.
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

/// Keeps the signal away that ends a process when it writes to a pipe whose reader is gone.
class PipeSignalHeldBack {
  public:
    PipeSignalHeldBack() {
        sigset_t pending;
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signal_, &before_);
    }
    ~PipeSignalHeldBack() {
        const timespec atOnce{};
        while (!wasPending_ && sigtimedwait(&signal_, nullptr, &atOnce) < 0 && errno == EINTR) {
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    PipeSignalHeldBack(const PipeSignalHeldBack&) = delete;
    PipeSignalHeldBack& operator=(const PipeSignalHeldBack&) = delete;

  private:
    sigset_t signal_;
    sigset_t before_;
    bool wasPending_;
};

/// `result` is that of a write of `text`.
std::size_t bytesDone(ssize_t result, std::string_view text) {
    if (result >= 0) {
        return static_cast<std::size_t>(result);
    }
    return errno == EAGAIN || errno == EINTR ? 0 : text.size();
}

/// A pipe that is ready takes PIPE_BUF bytes, unless somebody else is faster: then this waits.
std::size_t writeWhenReady(std::string_view text) {
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    if (poll(&standardError, 1, 0) != 1) {
        return 0;
    }
    return bytesDone(
        write(STDERR_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF)), text);
}

std::size_t writeOpenedAnew(std::string_view text, MayWait mayWait) {
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
        return text.size();  // it is closed
    }
    if (S_ISSOCK(status.st_mode)) {
        return bytesDone(send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
                         text);
    }
    if (S_ISREG(status.st_mode)) {
        return bytesDone(write(STDERR_FILENO, text.data(), text.size()), text);
    }
    const PipeSignalHeldBack heldBack;
    return writeOpenedAnew(text, mayWait);
}

}  // namespace orvx::utility
