// From the start of the command to the moment at which it can be announced.
// Everything happens on the main thread, before there is another one; there is no lock. Attempts
// are processes.

#include "ReadyCheck.h"

#include <unistd.h>

#include <chrono>
#include <system_error>

#include "Probe.h"

namespace orvx::announce {

namespace {

using namespace std::chrono_literals;

constexpr auto kPause = 100ms;

}  // namespace

ReadyCheck::ReadyCheck(EventLoop& loop, Children& children, const Options& options)
    : loop_(loop), children_(children), options_(options.ready), addresses_(addresses(options)) {}

std::vector<std::pair<std::string, std::string>> ReadyCheck::addresses(
    const Options& options) const {
    std::vector<std::pair<std::string, std::string>> addresses;
    for (const auto& service : options.services) {
        addresses.emplace_back(
            options_.host.empty() ? service.at("host").get<std::string>() : options_.host,
            service.at("port").dump());
    }
    return addresses;
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
    if (probe_ > 0) {
        ::kill(-probe_, SIGKILL);
    }
}

void ReadyCheck::probe() {
    try {
        startProbe();
    } catch (const std::system_error&) {  // too many processes, for now
        ended(-1);
    }
}

void ReadyCheck::startProbe() {
    const auto onEnd = [this](int status) { ended(status); };
    if (options_.kind == ReadyOptions::Kind::Command) {
        probe_ = children_.spawnProbe({"/bin/sh", "-c", options_.command}, onEnd);
    } else {
        probe_ = children_.forkProbe([this] { return answer(addresses_, options_.path) ? 0 : 1; },
                                     onEnd);
    }
}

void ReadyCheck::ended(int status) {
    probe_ = 0;
    if (!ready_) {
        return;
    }
    if (status == 0) {
        std::exchange(ready_, nullptr)();
    } else {
        pause_ = loop_.after(kPause, [this] { probe(); });
    }
}

}  // namespace orvx::announce
