#pragma once

#include <orvx/utility/ForkMark.h>

#include <cstddef>
#include <functional>
#include <string>
#include <thread>

namespace orvx::utility {

/// One thread of the framework. It has a name. It blocks signals, so that the process's signals are
/// delivered to threads that expect them. It can be leaked safely in a forked child.
///
/// Signals of a crash (SEGV, BUS, FPE, ILL, TRAP, SYS, ABRT) stay as they are on the creating
/// thread. A child that is forked on this thread gets the signal mask of the creating thread,
/// unless the mask was changed in between. A child made with vfork() or posix_spawn() inherits the
/// mask unchanged.
///
/// Thread-safety: start(), end() and the destructor are called by one thread at a time. The thread
/// itself may call end() and the destructor once start() has returned. isCurrent() may be called
/// from any thread.
class WorkerThread {
  public:
    /// The longest thread name that Linux stores, in bytes.
    static constexpr std::size_t kLongestName = 15;

    WorkerThread();
    /// Calls end().
    ~WorkerThread();
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;

    /// Runs `function` on a new thread, which destroys it afterwards. An earlier thread is ended
    /// first. An exception that leaves `function` ends the process. When start() returns, the
    /// system shows the first 15 bytes of `name`.
    /// Throws std::system_error if the thread cannot be made; `function` is dropped then.
    void start(const std::string& name, std::function<void()> function);

    /// Waits until the function has returned; the caller must have told the function to return. On
    /// the thread itself it does not wait, but detaches: the function must own everything that it
    /// still uses. Does nothing without a thread, and in a forked child.
    void end() noexcept;

    /// Whether the caller runs on this thread.
    bool isCurrent() const noexcept;

    /// Whether this process is a forked child of the process that started the thread or, without a
    /// thread, that made this object. The thread does not exist there, and every mutex and
    /// condition variable that it used may be locked for ever: leak them.
    bool isInForkedChild() const noexcept { return mark_.isInForkedChild(); }

  private:
    std::thread thread_;
    ForkMark mark_;
};

}  // namespace orvx::utility
