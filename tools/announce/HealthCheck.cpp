// Whether a service is well, asked for as long as it is to be announced.
// Everything happens on the main thread; there is no lock. Attempts are processes.

#include "HealthCheck.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <system_error>
#include <utility>

#include "Probe.h"

namespace orvx::announce {

using std::chrono::milliseconds;

namespace {

/// An attempt is killed at its bound; it ends by itself later, should this process have died.
constexpr milliseconds kGraceOfTheOrphan{1000};

}  // namespace

HealthCheck::HealthCheck(EventLoop& loop, Children& children, const Options& options,
                         const nlohmann::json& description, Changed changed)
    : loop_(loop),
      children_(children),
      options_(options.health),
      target_{options.probedHost.empty() ? description.at("host").get<std::string>()
                                         : options.probedHost,
              description.at("port").dump()},
      words_{description.at("name"), description.at("host"), description.at("port").dump()},
      changed_(std::move(changed)) {}

void HealthCheck::start(milliseconds delay) {
    if (options_.kind != ProbeOptions::Kind::None && !std::exchange(isStarted_, true)) {
        due_ = EventLoop::Clock::now() + delay;
        wait();
    }
}

void HealthCheck::stop() {
    loop_.cancel(std::exchange(pause_, 0));
    loop_.cancel(std::exchange(bound_, 0));
    children_.abandonProbe(std::exchange(probe_, 0));
}

void HealthCheck::probe() {
    due_ += options_.interval;
    try {
        probe_ =
            startProbe(children_, options_, target_, words_, options_.timeout + kGraceOfTheOrphan,
                       [this](int status) { ended(status); });
        bound_ = loop_.after(options_.timeout, [this] { ::kill(-probe_, SIGKILL); });
    } catch (const std::system_error&) {
        wait();  // Too many processes, for now: that says nothing about the service.
    }
}

void HealthCheck::ended(int status) {
    probe_ = 0;
    loop_.cancel(std::exchange(bound_, 0));
    wait();
    if ((status == 0) == isHealthy_) {
        contradictions_ = 0;
    } else if (++contradictions_ >= (isHealthy_ ? options_.failures : options_.successes)) {
        contradictions_ = 0;
        isHealthy_ = !isHealthy_;
        changed_(isHealthy_ ? "" : whyProbeFailed(options_, status));
    }
}

void HealthCheck::wait() {
    const auto now = EventLoop::Clock::now();
    due_ = std::max(due_, now);
    pause_ = loop_.after(std::chrono::ceil<milliseconds>(due_ - now), [this] { probe(); });
}

}  // namespace orvx::announce
