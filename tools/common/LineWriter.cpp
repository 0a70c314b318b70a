// The queue and the thread that empties it. Every write is one that cannot block for a reader, so
// the lock is held for it.
// Entered by any thread; work() runs on the writer's own, or in the destructor if there is none.
// `mutex_` is a leaf lock.

#include "LineWriter.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

namespace orvx::tools {

using utility::MutexLock;

namespace {

/// How long the destructor waits for a reader.
constexpr std::chrono::seconds kLongestEnd{1};
/// The pause before a reader that took nothing is tried again.
constexpr std::chrono::milliseconds kRetryInterval{20};

bool isKind(int descriptor, mode_t kind) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && (status.st_mode & S_IFMT) == kind;
}

/// Returns a non-blocking descriptor of the same pipe or terminal; -1 for other kinds of files, or
/// where opening is forbidden.
int reopen(int descriptor) {
    if (!isKind(descriptor, S_IFIFO) && ::isatty(descriptor) != 1) {
        return -1;
    }
    const std::string name = "/proc/self/fd/" + std::to_string(descriptor);
    return ::open(name.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
}

}  // namespace

LineWriter::LineWriter(int descriptor, DropLine dropLine, Emptied emptied)
    : ownDescriptor_(reopen(descriptor)),
      descriptor_(ownDescriptor_ < 0 ? descriptor : ownDescriptor_),
      mayBlock_(ownDescriptor_ < 0 && !isKind(descriptor, S_IFREG)),
      dropLine_(std::move(dropLine)),
      emptied_(emptied) {}

LineWriter::~LineWriter() {
    {
        const MutexLock lock(mutex_);
        deadline_ = Clock::now() + kLongestEnd;
        changed_.notify_all();
    }
    if (thread_.joinable()) {
        thread_.join();
    } else {
        work();
    }
    if (ownDescriptor_ >= 0) {
        ::close(ownDescriptor_);
    }
}

bool LineWriter::write(const std::string& line) {
    const MutexLock lock(mutex_);
    writeQueue();
    if (dropped_ > 0 || (!queue_.empty() && queue_.size() + line.size() > kMostQueuedBytes)) {
        ++dropped_;
        return false;
    }
    if (queue_.empty() && isLineCut_) {
        queue_ = "\n";
    }
    queue_ += line;
    const bool isTaken = writeQueue();
    if (!queue_.empty() && emptied_ == Emptied::ByThread) {
        startThread();
    }
    return isTaken;
}

void LineWriter::flush() {
    const MutexLock lock(mutex_);
    writeQueue();
}

bool LineWriter::isReady() const {
    pollfd polled{descriptor_, POLLOUT, 0};
    return ::poll(&polled, 1, 0) == 1;
}

/// Writes at most PIPE_BUF bytes where more may block: poll() guarantees that a pipe has room for
/// them.
long LineWriter::writeSome() const {
    const std::size_t size =
        mayBlock_ ? std::min<std::size_t>(queue_.size(), PIPE_BUF) : queue_.size();
    const auto sent = ::send(descriptor_, queue_.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent < 0 && errno == ENOTSOCK ? ::write(descriptor_, queue_.data(), size) : sent;
}

/// Writes what the reader takes. False: it takes nothing any more, and the queue is lost.
bool LineWriter::writeQueue() {
    while (!queue_.empty() && isReady()) {
        const long written = writeSome();
        if (written > 0) {
            isLineCut_ = queue_[static_cast<std::size_t>(written) - 1] != '\n';
            queue_.erase(0, static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            return true;
        } else if (errno != EINTR) {
            queue_.clear();
            dropped_ = 0;
            return false;
        }
        if (queue_.empty() && dropped_ > 0) {
            queue_ = dropLine_(std::exchange(dropped_, 0));
        }
    }
    return true;
}

void LineWriter::startThread() {
    try {
        if (!thread_.joinable()) {
            thread_ = std::thread([this] { work(); });
        }
    } catch (const std::system_error&) {
        // The next line is written with those in the queue.
    }
    changed_.notify_all();
}

void LineWriter::work() {
    MutexLock lock(mutex_);
    while (!isFinished()) {
        if (queue_.empty()) {
            changed_.wait(lock.native());
            continue;
        }
        writeQueue();
        if (!queue_.empty()) {
            changed_.wait_for(lock.native(), kRetryInterval);
        }
    }
}

bool LineWriter::isFinished() const {
    return queue_.empty() ? deadline_ != Clock::time_point::max() : Clock::now() >= deadline_;
}

}  // namespace orvx::tools
