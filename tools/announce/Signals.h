#pragma once

#include "EventLoop.h"

#include <csignal>

#include <functional>

namespace orvx::announce {

/// Delivers the signals of the process as events of the loop. Construct it before the first thread,
/// so that they are blocked in all threads. Signals that the parent process has set to be ignored
/// (SIGHUP under nohup, SIGINT in a shell's background job) stay ignored.
class Signals {
  public:
    /// `fromTerminal`: the kernel has sent the signal to the whole foreground process group.
    using Handler = std::function<void(int number, bool fromTerminal)>;

    Signals(EventLoop& loop, Handler handler);
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// The signal mask before construction. Child processes are started with it.
    const sigset_t& originalMask() const { return original_; }

  private:
    void read() const;

    Handler handler_;
    sigset_t original_;
    int descriptor_;
};

}  // namespace orvx::announce
