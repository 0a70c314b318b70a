#pragma once

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <string>
#include <vector>

#include "Children.h"
#include "EventLoop.h"
#include "Options.h"

namespace orvx::announce {

/// Asks one service at an interval whether it is well, one attempt at a time. It is taken for
/// healthy at first.
/// Thread-safety: none. `loop`, `children` and `options` must outlive it.
class HealthCheck {
  public:
    /// Called after each change; the reason is empty when the service is healthy.
    using Changed = std::function<void(const std::string& reason)>;

    HealthCheck(EventLoop& loop, Children& children, const Options& options,
                const nlohmann::json& description, Changed changed);
    ~HealthCheck() { stop(); }
    HealthCheck(const HealthCheck&) = delete;
    HealthCheck& operator=(const HealthCheck&) = delete;

    /// The first attempt begins after the delay. Does nothing where there is nothing to ask, and
    /// when it was started before.
    void start(std::chrono::milliseconds delay);
    /// An attempt that is under way is killed.
    void stop();

  private:
    void probe();
    void ended(int status);
    void wait();

    EventLoop& loop_;
    Children& children_;
    const HealthOptions& options_;
    const std::vector<std::string> target_;
    const std::vector<std::string> words_;
    const Changed changed_;
    bool isStarted_ = false;
    bool isHealthy_ = true;
    /// How many attempts in a row have contradicted isHealthy_.
    unsigned contradictions_ = 0;
    EventLoop::Clock::time_point due_;
    EventLoop::Timer pause_ = 0;
    EventLoop::Timer bound_ = 0;
    pid_t probe_ = 0;
};

}  // namespace orvx::announce
