// From the start of the command to the moment at which it can be announced.
// Everything happens on the main thread; there is no lock. Attempts are processes.

#include "ReadyCheck.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "Probe.h"

namespace orvx::announce {

namespace {

using namespace std::chrono_literals;

constexpr auto kPause = 100ms;
constexpr auto kLongestAttempt = 5s;

}  // namespace

ReadyCheck::ReadyCheck(EventLoop& loop, Children& children, const Options& options)
    : loop_(loop), children_(children), options_(options.ready) {
    for (const auto& service : options.services) {
        targets_.push_back(options.probedHost.empty() ? service.at("host").get<std::string>()
                                                      : options.probedHost);
        targets_.push_back(service.at("port").dump());
    }
}

void ReadyCheck::start(Ready ready) {
    ready_ = std::move(ready);
    if (options_.kind == ReadyOptions::Kind::None) {
        ready_();
    } else {
        probe();
    }
}

void ReadyCheck::stop() {
    ready_ = nullptr;
    loop_.cancel(pause_);
    children_.abandonProbe(std::exchange(probe_, 0));
}

void ReadyCheck::probe() {
    try {
        probe_ = startProbe(children_, options_, targets_, {}, kLongestAttempt,
                            [this](int status) { ended(status); });
    } catch (const std::system_error&) {  // too many processes, for now
        ended(-1);
    }
}

void ReadyCheck::ended(int status) {
    probe_ = 0;
    if (status == 0) {
        std::exchange(ready_, nullptr)();
    } else {
        pause_ = loop_.after(kPause, [this] { probe(); });
    }
}

}  // namespace orvx::announce
