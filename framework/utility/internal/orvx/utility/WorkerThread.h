#pragma once

#include <orvx/utility/ForkMark.h>

#include <cstddef>
#include <functional>
#include <string>
#include <thread>

namespace orvx::utility {

/// One thread of the framework's own: named, with signals blocked, so that the process's signals go
/// to threads that expect them, and safe to leave behind in a forked child.
///
/// The signals of a crash (SEGV, BUS, FPE, ILL, TRAP, SYS, ABRT) stay as they are on the thread
/// that makes it. A child that the thread forks gets the signal mask of the thread that made it,
/// unless the mask was changed in between; one made with vfork() or posix_spawn() inherits the mask
/// as it is.
///
/// Thread-safety: start(), end() and the destructor are called by one thread at a time; the thread
/// itself may call end() and the destructor once start() has returned. isCurrent() may be called
/// from any thread.
class WorkerThread {
  public:
    /// The longest name of a thread that Linux stores, in bytes.
    static constexpr std::size_t kLongestName = 15;

    WorkerThread();
    /// As end().
    ~WorkerThread();
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    /// Runs `function` on a new thread, which destroys it when it has returned; a thread that was
    /// started before is ended first. An exception that leaves `function` ends the process.
    /// `name` is shown by the system, cut to 15 bytes, when this returns.
    /// Throws std::system_error when the thread cannot be made; `function` is dropped then.
    void start(const std::string& name, std::function<void()> function);

    /// Waits until the function has returned; whoever calls it has told the function to. On the
    /// thread itself it does not wait, but lets go of the thread: what the function still uses, it
    /// has to own. Does nothing without a thread, and in a forked child.
    void end() noexcept;

    /// Whether the caller runs on this thread.
    bool isCurrent() const noexcept;

    /// Whether this process is a child, forked since the thread was started or, without a thread,
    /// since this object was made. There is no thread then, and every mutex and condition variable
    /// that it used may be in its hands for ever: leave them alone and leak them.
    bool isLeftBehind() const noexcept { return mark_.isLeftBehind(); }

  private:
    std::thread thread_;
    ForkMark mark_;
};

}  // namespace orvx::utility
