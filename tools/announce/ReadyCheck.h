#pragma once

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <string>
#include <vector>

#include "Children.h"
#include "EventLoop.h"
#include "Options.h"

namespace orvx::announce {

/// Probes the services until all of them answer.
/// Thread-safety: none.
class ReadyCheck {
  public:
    using Ready = std::function<void()>;

    ReadyCheck(EventLoop& loop, Children& children, const Options& options);

    void start(Ready ready);
    /// Probes these services instead, also if it has started. Restarts a running attempt if an
    /// address has changed.
    void setServices(const std::vector<nlohmann::json>& services);
    /// Kills a running attempt; `ready` will not be called.
    void stop();
    /// Why the last attempt failed.
    const std::string& failureReason() const { return failureReason_; }

  private:
    void probe();
    void onProbeExit(int status);
    void retry(const std::string& failureReason);

    EventLoop& loop_;
    Children& children_;
    const ReadyOptions& options_;
    const std::string& probedHost_;
    std::vector<std::string> targets_;
    Ready ready_;
    pid_t probe_ = 0;
    EventLoop::Timer nextProbe_ = 0;
    std::string failureReason_ = "no answer in time";
};

}  // namespace orvx::announce
