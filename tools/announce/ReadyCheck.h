#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Children.h"
#include "EventLoop.h"
#include "Options.h"

namespace orvx::announce {

/// Asks again and again whether the command is ready, until it is.
/// Thread-safety: none.
class ReadyCheck {
  public:
    using Ready = std::function<void()>;

    ReadyCheck(EventLoop& loop, Children& children, const Options& options);

    void start(Ready ready);
    /// What is under way is killed; `ready` will not be called.
    void stop();

  private:
    void probe();
    void ended(int status);

    EventLoop& loop_;
    Children& children_;
    const ReadyOptions& options_;
    std::vector<std::string> targets_;
    Ready ready_;
    pid_t probe_ = 0;
    EventLoop::Timer pause_ = 0;
};

}  // namespace orvx::announce
