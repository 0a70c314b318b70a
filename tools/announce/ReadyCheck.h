#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Children.h"
#include "EventLoop.h"
#include "Options.h"

namespace orvx::announce {

/// Asks again and again whether the command is ready, until it is. Each attempt is a process of its
/// own, so that looking up a name, or a shell command that hangs, holds nothing up.
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
    void startProbe();
    void ended(int status);
    std::vector<std::pair<std::string, std::string>> addresses(const Options& options) const;

    EventLoop& loop_;
    Children& children_;
    const ReadyOptions& options_;
    const std::vector<std::pair<std::string, std::string>> addresses_;
    Ready ready_;
    pid_t probe_ = 0;
    EventLoop::Timer pause_ = 0;
};

}  // namespace orvx::announce
