#pragma once

#include "EventLoop.h"

#include <csignal>

#include <functional>

namespace orvx::announce {

/// Takes the signals of the process as events of the loop. To be made before the first thread, so
/// that all threads have them blocked. What the program's starter has ignored (SIGHUP under nohup,
/// SIGINT in a shell's background) stays ignored.
class Signals {
  public:
    /// `fromTerminal` tells that the kernel sent it to the whole foreground process group.
    using Handler = std::function<void(int number, bool fromTerminal)>;

    Signals(EventLoop& loop, Handler handler);
    ~Signals();
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    /// What was blocked before, for programs to be started with.
    const sigset_t& originalMask() const { return original_; }

  private:
    void read() const;

    Handler handler_;
    sigset_t original_;
    int descriptor_;
};

}  // namespace orvx::announce
