// Waits until the command is ready to be announced.
// Runs on the main thread; there is no lock. Each attempt is a process.

#include "ReadyCheck.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "Probe.h"

namespace orvx::announce {

namespace {

using namespace std::chrono_literals;

constexpr auto kInterval = 100ms;
/// How long an attempt may take for one service.
constexpr auto kMaxTimeOfEach = 5s;

}  // namespace

ReadyCheck::ReadyCheck(EventLoop& loop, Children& children, const Options& options)
    : loop_(loop), children_(children), options_(options.ready), probedHost_(options.probedHost) {
    setServices(options.services);
}

void ReadyCheck::start(Ready ready) {
    ready_ = std::move(ready);
    if (options_.kind == ReadyOptions::Kind::None) {
        ready_();
    } else {
        probe();
    }
}

void ReadyCheck::setServices(const std::vector<nlohmann::json>& services) {
    const auto previous = std::exchange(targets_, {});
    for (const auto& service : services) {
        targets_.push_back(probedHost_.empty() ? service.at("host").get<std::string>()
                                               : probedHost_);
        targets_.push_back(service.at("port").dump());
    }
    if (probe_ != 0 && targets_ != previous) {
        children_.killProbe(std::exchange(probe_, 0));
        probe();
    }
}

void ReadyCheck::stop() {
    ready_ = nullptr;
    loop_.cancel(nextProbe_);
    children_.killProbe(std::exchange(probe_, 0));
}

void ReadyCheck::probe() {
    try {
        probe_ = startProbe(children_, options_, targets_, {}, {kMaxTimeOfEach, options_.timeout},
                            [this](int status) { onProbeExit(status); });
    } catch (const std::system_error& error) {
        retry(error.what());
    }
}

void ReadyCheck::onProbeExit(int status) {
    probe_ = 0;
    if (status == 0) {
        std::exchange(ready_, nullptr)();
    } else {
        retry(probeFailureReason(options_, status));
    }
}

void ReadyCheck::retry(const std::string& failureReason) {
    failureReason_ = failureReason;
    nextProbe_ = loop_.after(kInterval, [this] { probe(); });
}

}  // namespace orvx::announce
