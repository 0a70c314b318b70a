// What follows what, from the start of the command to the exit code.
// Everything happens on the main thread, in tasks of the loop; there is no lock.

#include "Supervisor.h"

#include <unistd.h>
#include <csignal>

#include <cstddef>
#include <map>
#include <system_error>
#include <utility>

#include "ExitCodes.h"
#include "ServiceDescriptions.h"

namespace orvx::announce {

using namespace std::chrono_literals;
using nlohmann::json;
using Mood = Report::Mood;

namespace {

constexpr auto kTick = 1s;
/// So many times as long as a status takes passes until the next one.
constexpr int kStatusShare = 20;

}  // namespace

Supervisor::Supervisor(const Options& options)
    : options_(options),
      token_(options.registry.tokenFile),
      report_(options.command.empty() ? STDOUT_FILENO : STDERR_FILENO, options.json),
      statusFile_(options.statusFile),
      signals_(loop_, [this](int number, bool fromTerminal) { onSignal(number, fromTerminal); }),
      children_(signals_.originalMask()),
      command_(children_),
      readyCheck_(loop_, children_, options),
      announcer_(
          loop_, children_, options, token_.credentials(),
          [this](const std::string& event, const json& details) { onChange(event, details); }) {}

int Supervisor::run() {
    loop_.post([this] { startCommand(); });
    loop_.run();
    keepStatus();
    report_.writeRest();
    return exitCode_;
}

void Supervisor::startCommand() {
    if (!options_.command.empty()) {
        try {
            command_.start(options_.command, [this] { onCommandEnded(); });
        } catch (const std::system_error& error) {
            report_.event("cannot-start", Mood::Bad, {{"reason", error.what()}});
            exitCode_ = error.code() == std::errc::no_such_file_or_directory ? kNotFound
                                                                             : kCannotBeExecuted;
            leave();
            return;
        }
        report_.event("started", Mood::Plain,
                      {{"command", options_.command}, {"pid", command_.pid()}});
    }
    keepStatus();
    tick();
    feedWatchdog();
    bound_ = loop_.after(options_.ready.timeout, [this] { onNotReady(); });
    readyCheck_.start([this] { onReady(); });
}

void Supervisor::onReady() {
    loop_.cancel(bound_);
    phase_ = Phase::Serving;
    if (!options_.command.empty()) {
        report_.event("ready", Mood::Plain);
    }
    serviceManager_.tell("READY=1");
    announcer_.announce();
}

void Supervisor::onNotReady() {
    report_.event("not-ready", Mood::Bad, {{"seconds", inSeconds(options_.ready.timeout)}});
    exitCode_ = kNotReadyInTime;
    signalToPassOn_ = SIGTERM;
    stopCommand();
}

void Supervisor::onCommandEnded() {
    report_.event("ended", command_.exitCode() == 0 ? Mood::Plain : Mood::Bad,
                  {{"exitCode", command_.exitCode()}});
    if (phase_ == Phase::Serving) {
        withdraw();
    } else if (phase_ != Phase::Withdrawing) {
        leave();
    }
}

void Supervisor::onSignal(int number, bool fromTerminal) {
    switch (number) {
        case SIGCHLD:
            children_.reap();
            break;
        case SIGUSR1:
            showStatus();
            break;
        case SIGUSR2:
            command_.signal(number);
            break;
        case SIGHUP:
            onHangup(fromTerminal);
            break;
        default:
            stop(number, fromTerminal);
    }
}

void Supervisor::onHangup(bool fromTerminal) {
    if (fromTerminal) {
        if (!command_.isRunning()) {
            stop(SIGHUP, true);
        }
        return;
    }
    command_.signal(SIGHUP);
    readTokenAgain();
    if (phase_ == Phase::Serving) {
        readServicesAgain();
        announcer_.announce();
    }
}

void Supervisor::readTokenAgain() {
    try {
        token_.readAgain();
    } catch (const std::exception& error) {
        report_.event("no-token", Mood::Bad, {{"reason", error.what()}});
    }
}

void Supervisor::readServicesAgain() {
    if (options_.service.file.empty()) {
        return;
    }
    try {
        report_.event(
            "reloaded", Mood::Plain,
            announcer_.update(describe(options_.service, options_.registry, Reading::Again)));
    } catch (const std::exception& error) {
        report_.event("not-reloaded", Mood::Bad, {{"reason", error.what()}});
    }
}

/// From a terminal the command has got it already.
void Supervisor::stop(int number, bool fromTerminal) {
    report_.event("stopping", Mood::Plain, {{"signal", ::sigabbrev_np(number)}});
    signalToPassOn_ = fromTerminal ? 0 : number;
    const bool isFirst = !std::exchange(isToldToStop_, true);
    if (phase_ == Phase::Serving) {
        withdraw();
    } else if (phase_ == Phase::Withdrawing && isFirst) {
        return;  // the command has ended by itself, and this is under way
    } else if (phase_ == Phase::Stopping) {
        command_.signal(signalToPassOn_);
    } else {
        stopCommand();
    }
}

void Supervisor::withdraw() {
    phase_ = Phase::Withdrawing;
    serviceManager_.tell("STOPPING=1");
    announcer_.withdraw();
    goOn();
}

void Supervisor::onChange(const std::string& event, const json& details) {
    static const std::map<std::string, Mood> moods{
        {"announced", Mood::Good},  {"reachable", Mood::Good}, {"healthy", Mood::Good},
        {"unreachable", Mood::Bad}, {"lost", Mood::Bad},       {"unhealthy", Mood::Bad},
        {"refused", Mood::Bad},     {"left", Mood::Bad}};
    if (!event.empty()) {
        const auto found = moods.find(event);
        report_.event(event, found == moods.end() ? Mood::Plain : found->second, details);
    }
    keepStatusSoon();
    loop_.post([this] { goOn(); });
}

/// To the next phase, when there is nothing left to wait for.
void Supervisor::goOn() {
    using State = Announcement::State;
    const std::size_t refused = announcer_.count(State::Refused);
    const std::size_t over =
        refused + announcer_.count(State::Withdrawn) + announcer_.count(State::Left);
    const bool isOnlyThere = phase_ == Phase::Serving && options_.command.empty();
    if (phase_ == Phase::Withdrawing && over == announcer_.size()) {
        stopCommand();
    } else if (isOnlyThere && refused + announcer_.count(State::Clearing) == announcer_.size()) {
        withdraw();
    }
}

void Supervisor::stopCommand() {
    phase_ = Phase::Stopping;
    loop_.cancel(bound_);
    readyCheck_.stop();
    announcer_.giveUp();
    if (!command_.isRunning()) {
        leave();
        return;
    }
    command_.signal(signalToPassOn_);
    bound_ = loop_.after(options_.stopTimeout, [this] {
        report_.event("killing", Mood::Bad, {{"pid", command_.pid()}});
        command_.signal(SIGKILL);
    });
}

void Supervisor::leave() {
    if (exitCode_ == 0) {
        exitCode_ = options_.command.empty() ? exitCodeAlone() : exitCodeOfTheCommand();
    }
    readyCheck_.stop();
    loop_.stop();
}

int Supervisor::exitCodeAlone() const {
    using State = Announcement::State;
    return announcer_.count(State::Left) + announcer_.count(State::Refused) == 0 ? kWithdrawn
                                                                                 : kNotWithdrawn;
}

/// Its failure says more than an entry that is left.
int Supervisor::exitCodeOfTheCommand() const {
    const bool isLeft = announcer_.count(Announcement::State::Left) > 0;
    return command_.exitCode() == 0 && isLeft ? kLeftBehind : command_.exitCode();
}

void Supervisor::tick() {
    report_.writeRest();
    keepStatusSoon();
    loop_.after(kTick, [this] { tick(); });
}

void Supervisor::feedWatchdog() {
    if (serviceManager_.watchdogInterval() > 0ms) {
        serviceManager_.tell("WATCHDOG=1");
        loop_.after(serviceManager_.watchdogInterval(), [this] { feedWatchdog(); });
    }
}

void Supervisor::showStatus() {
    json state = status();
    const json services = state["services"];
    state.erase("services");
    report_.event("status", Mood::Plain, state);
    for (const json& service : services) {
        report_.event("status", Mood::Plain, service);
    }
}

void Supervisor::keepStatusSoon() {
    if (nextStatus_ == 0) {
        nextStatus_ = loop_.after(statusPause_, [this] {
            nextStatus_ = 0;
            keepStatus();
        });
    }
}

void Supervisor::keepStatus() {
    const auto begin = EventLoop::Clock::now();
    serviceManager_.tellStatus(summary());
    try {
        if (!options_.statusFile.empty()) {
            statusFile_.write(status());
        }
    } catch (const std::system_error& error) {
        report_.event("no-status-file", Mood::Bad, {{"reason", error.what()}});
    }
    statusPause_ = std::chrono::ceil<std::chrono::milliseconds>(kStatusShare *
                                                                (EventLoop::Clock::now() - begin));
}

std::string Supervisor::summary() {
    return std::to_string(announcer_.countConfirmed()) + " of " +
           std::to_string(announcer_.size()) + " announced";
}

json Supervisor::status() {
    static constexpr const char* phases[] = {"starting", "serving", "withdrawing", "stopping"};
    json state{{"pid", ::getpid()},       {"phase", phases[static_cast<std::size_t>(phase_)]},
               {"startedAt", startedAt_}, {"registry", options_.registry.url},
               {"summary", summary()},    {"services", announcer_.status()}};
    if (command_.isRunning()) {
        state["commandPid"] = command_.pid();
    }
    return state;
}

}  // namespace orvx::announce
