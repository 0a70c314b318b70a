// Probes a service for as long as it is announced or waits to be announced.
// Runs on the main thread; there is no lock. Each attempt is a process.

#include "HealthCheck.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <system_error>
#include <utility>

#include "Probe.h"

namespace orvx::announce {

using std::chrono::milliseconds;

namespace {

/// This process kills an attempt at its timeout. If this process has died, the attempt ends itself
/// after this additional time.
constexpr milliseconds kOrphanGrace{1000};

}  // namespace

HealthCheck::HealthCheck(EventLoop& loop, Children& children, const Options& options,
                         const nlohmann::json& description, Changed changed)
    : loop_(loop),
      children_(children),
      options_(options.health),
      target_{options.probedHost.empty() ? description.at("host").get<std::string>()
                                         : options.probedHost,
              description.at("port").dump()},
      shellArguments_{description.at("name"), description.at("host"),
                      description.at("port").dump()},
      changed_(std::move(changed)) {}

void HealthCheck::start(milliseconds delay) {
    if (options_.kind != ProbeOptions::Kind::None && !std::exchange(isStarted_, true)) {
        nextProbeTime_ = EventLoop::Clock::now() + delay;
        scheduleProbe();
    }
}

void HealthCheck::stop() {
    loop_.cancel(std::exchange(nextProbe_, 0));
    loop_.cancel(std::exchange(timeout_, 0));
    children_.killProbe(std::exchange(probe_, 0));
}

void HealthCheck::probe() {
    nextProbeTime_ += options_.interval;
    try {
        const milliseconds limit = options_.timeout + kOrphanGrace;
        probe_ = startProbe(children_, options_, target_, shellArguments_, {limit, limit},
                            [this](int status) { onProbeExit(status); });
        timeout_ = loop_.after(options_.timeout, [this] { ::kill(-probe_, SIGKILL); });
    } catch (const std::system_error& error) {
        scheduleProbe();
        if (!isShortage(error.code())) {
            takeResult(error.what());
        }
    }
}

void HealthCheck::onProbeExit(int status) {
    probe_ = 0;
    loop_.cancel(std::exchange(timeout_, 0));
    scheduleProbe();
    takeResult(status == 0 ? "" : probeFailureReason(options_, status));
}

void HealthCheck::takeResult(const std::string& failureReason) {
    if (failureReason.empty() == isHealthy_) {
        contraryResults_ = 0;
    } else if (++contraryResults_ >= (isHealthy_ ? options_.failures : options_.successes)) {
        contraryResults_ = 0;
        isHealthy_ = !isHealthy_;
        changed_(failureReason);
    }
}

void HealthCheck::scheduleProbe() {
    const auto now = EventLoop::Clock::now();
    nextProbeTime_ = std::max(nextProbeTime_, now);
    nextProbe_ =
        loop_.after(std::chrono::ceil<milliseconds>(nextProbeTime_ - now), [this] { probe(); });
}

}  // namespace orvx::announce
