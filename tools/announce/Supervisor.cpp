// What follows what, from the start of the command to the exit code.
// Everything happens on the main thread, in tasks of the loop, but for the closing of the contexts
// at the end; there is no lock.

#include "Supervisor.h"

#include <unistd.h>
#include <csignal>

#include <atomic>
#include <cstddef>
#include <system_error>
#include <thread>
#include <utility>

#include "ExitCodes.h"
#include "Settings.h"

namespace orvx::announce {

using namespace std::chrono_literals;
using nlohmann::json;
using Mood = Report::Mood;

namespace {

constexpr auto kTick = 1s;
/// So many times as long as a status takes passes until the next one.
constexpr int kStatusShare = 20;
constexpr std::size_t kServicesPerCloser = 30;

/// Closing a context waits for its threads to end: so many are closed at the same time.
void close(std::vector<std::unique_ptr<Announcement>>& announcements) {
    std::atomic<std::size_t> next{0};
    const auto closeSome = [&] {
        for (std::size_t i = next++; i < announcements.size(); i = next++) {
            announcements[i].reset();
        }
    };
    std::vector<std::thread> closers;
    try {
        while (closers.size() < announcements.size() / kServicesPerCloser) {
            closers.emplace_back(closeSome);
        }
    } catch (const std::system_error&) {  // too many threads: those that there are do it
    }
    closeSome();
    for (std::thread& closer : closers) {
        closer.join();
    }
}

}  // namespace

Supervisor::Supervisor(const Options& options)
    : options_(options),
      token_(options.registry.tokenFile),
      settings_(settingsFrom(options.registry, token_.credentials())),
      report_(options.command.empty() ? STDOUT_FILENO : STDERR_FILENO, options.json),
      statusFile_(options.statusFile),
      signals_(loop_, [this](int number, bool fromTerminal) { onSignal(number, fromTerminal); }),
      children_(signals_.originalMask()),
      command_(children_),
      readyCheck_(loop_, children_, options) {
    for (const json& description : options.services) {
        announcements_.push_back(std::make_unique<Announcement>(
            loop_, settings_, description, counts_,
            [this](const std::string& event, const json& details) { onChange(event, details); }));
    }
}

int Supervisor::run() {
    loop_.post([this] { startCommand(); });
    loop_.run();
    keepStatus();
    close(announcements_);
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
    callEachWhileServing(&Announcement::start);
}

/// Each in a task of its own, so that other tasks get their turn: opening a context starts threads.
void Supervisor::callEachWhileServing(void (Announcement::*operation)()) {
    for (const auto& announcement : announcements_) {
        loop_.post([this, operation, one = announcement.get()] {
            if (phase_ == Phase::Serving) {
                (one->*operation)();
            }
        });
    }
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
    callEachWhileServing(&Announcement::startAgainIfRefused);
}

void Supervisor::readTokenAgain() {
    try {
        token_.read();
    } catch (const std::exception& error) {
        report_.event("no-token", Mood::Bad, {{"reason", error.what()}});
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
    bound_ = loop_.after(options_.withdrawTimeout, [this] { stopCommand(); });
    for (const auto& announcement : announcements_) {
        announcement->withdraw();
    }
    goOn();
}

void Supervisor::onChange(const std::string& event, const json& details) {
    const bool isBad = event == "lost" || event == "refused" || event == "left";
    report_.event(event,
                  isBad                  ? Mood::Bad
                  : event == "announced" ? Mood::Good
                                         : Mood::Plain,
                  details);
    if (event != "log") {
        keepStatusSoon();
        loop_.post([this] { goOn(); });
    }
}

/// Whether nothing is left to wait for.
void Supervisor::goOn() {
    using State = Announcement::State;
    const bool areAllOver = count(State::Refused) + count(State::Withdrawn) + count(State::Left) ==
                            announcements_.size();
    const bool isOnlyThere = phase_ == Phase::Serving && options_.command.empty();
    if (areAllOver && (phase_ == Phase::Withdrawing || isOnlyThere)) {
        stopCommand();
    }
}

void Supervisor::stopCommand() {
    phase_ = Phase::Stopping;
    loop_.cancel(bound_);
    readyCheck_.stop();
    for (const auto& announcement : announcements_) {
        announcement->giveUp();
    }
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
        exitCode_ = options_.command.empty() ? exitCodeAlone() : command_.exitCode();
    }
    readyCheck_.stop();
    loop_.stop();
}

int Supervisor::exitCodeAlone() const {
    using State = Announcement::State;
    return count(State::Left) + count(State::Refused) == 0 ? kWithdrawn : kNotWithdrawn;
}

void Supervisor::tick() {
    callEachWhileServing(&Announcement::keepChecked);
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

std::size_t Supervisor::count(Announcement::State state) const {
    const auto found = counts_.find(state);
    return found == counts_.end() ? 0 : found->second;
}

std::string Supervisor::summary() const {
    return std::to_string(count(Announcement::State::Announced)) + " of " +
           std::to_string(announcements_.size()) + " announced";
}

json Supervisor::status() const {
    static constexpr const char* phases[] = {"starting", "serving", "withdrawing", "stopping"};
    json services = json::array();
    for (const auto& announcement : announcements_) {
        services.push_back(announcement->status());
    }
    json state{{"pid", ::getpid()},       {"phase", phases[static_cast<std::size_t>(phase_)]},
               {"startedAt", startedAt_}, {"registry", options_.registry.url},
               {"summary", summary()},    {"services", services}};
    if (command_.isRunning()) {
        state["commandPid"] = command_.pid();
    }
    return state;
}

}  // namespace orvx::announce
