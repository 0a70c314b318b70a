#pragma once

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <string>
#include <vector>

#include "Children.h"
#include "EventLoop.h"
#include "Options.h"

namespace orvx::announce {

/// Probes one service periodically, one attempt at a time. The service counts as healthy at first.
/// Thread-safety: none. `loop`, `children` and `options` must outlive it.
class HealthCheck {
  public:
    /// Called after each change. The reason is empty when the service has become healthy.
    using Changed = std::function<void(const std::string& reason)>;

    HealthCheck(EventLoop& loop, Children& children, const Options& options,
                const nlohmann::json& description, Changed changed);
    ~HealthCheck() { stop(); }
    HealthCheck(const HealthCheck&) = delete;
    HealthCheck& operator=(const HealthCheck&) = delete;

    /// The first attempt begins after the delay. Does nothing if no health check is configured or
    /// start() was called before.
    void start(std::chrono::milliseconds delay);
    /// Kills a running attempt.
    void stop();

  private:
    void probe();
    void onProbeExit(int status);
    /// An empty reason for a success.
    void takeResult(const std::string& failureReason);
    void scheduleProbe();

    EventLoop& loop_;
    Children& children_;
    const HealthOptions& options_;
    const std::vector<std::string> target_;
    const std::vector<std::string> shellArguments_;
    const Changed changed_;
    bool isStarted_ = false;
    bool isHealthy_ = true;
    /// The number of consecutive attempts that contradicted isHealthy_.
    unsigned contraryResults_ = 0;
    EventLoop::Clock::time_point nextProbeTime_;
    EventLoop::Timer nextProbe_ = 0;
    EventLoop::Timer timeout_ = 0;
    pid_t probe_ = 0;
};

}  // namespace orvx::announce
