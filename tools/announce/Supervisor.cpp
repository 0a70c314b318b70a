// Sequences the program's phases, from the start of the command to the exit code.
// Runs on the main thread, in tasks of the loop; there is no lock.

#include "Supervisor.h"

#include <unistd.h>
#include <csignal>

#include <cstddef>
#include <exception>
#include <map>
#include <system_error>
#include <utility>

#include "ExitCodes.h"
#include "ServiceDescriptions.h"

namespace orvx::announce {

using namespace std::chrono_literals;
using nlohmann::json;
using Severity = Report::Severity;

namespace {

constexpr auto kTick = 1s;
/// Address space only: none of it is written.
constexpr std::size_t kReservedBytes = 4 * 1024 * 1024;
/// The time between two saves of the status is this many times the duration of a save.
constexpr int kStatusIntervalFactor = 20;

}  // namespace

Supervisor::Supervisor(const Options& options)
    : reserve_(new char[kReservedBytes]),
      options_(options),
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
    try {
        loop_.run();
    } catch (...) {
        abandon();
        throw;
    }
    saveStatus();
    report_.writePending();
    return exitCode_;
}

/// The end after a failure, such as a lack of memory. It needs no loop, and the
/// reserve suffices for hundreds of services.
void Supervisor::abandon() {
    reserve_.reset();
    readyCheck_.stop();
    try {
        announcer_.withdrawAndWait();
    } catch (const std::exception&) {
        // Entries may be left, as after a withdrawal that takes too long.
    }
    command_.end(options_.stopTimeout);
}

void Supervisor::startCommand() {
    if (!options_.command.empty()) {
        try {
            command_.start(options_.command, [this] { onCommandEnded(); });
        } catch (const std::system_error& error) {
            report_.event("cannot-start", Severity::Error, {{"reason", error.what()}});
            exitCode_ = error.code() == std::errc::no_such_file_or_directory ? kNotFound
                                                                             : kCannotBeExecuted;
            exitLoop();
            return;
        }
        report_.event("started", Severity::Info,
                      {{"command", options_.command}, {"pid", command_.pid()}});
    }
    saveStatus();
    tick();
    feedWatchdog();
    deadline_ = loop_.after(options_.ready.timeout, [this] { onNotReady(); });
    readyCheck_.start([this] { onReady(); });
}

void Supervisor::onReady() {
    loop_.cancel(deadline_);
    phase_ = Phase::Serving;
    if (!options_.command.empty()) {
        report_.event("ready", Severity::Info);
    }
    isReadyTold_ = serviceManager_.notify("READY=1");
    announcer_.announce();
}

void Supervisor::onNotReady() {
    report_.event(
        "not-ready", Severity::Error,
        {{"reason", readyCheck_.failureReason()}, {"seconds", inSeconds(options_.ready.timeout)}});
    exitCode_ = kNotReadyInTime;
    signalToForward_ = SIGTERM;
    stopCommand();
}

void Supervisor::onCommandEnded() {
    report_.event("ended", command_.exitCode() == 0 ? Severity::Info : Severity::Error,
                  {{"exitCode", command_.exitCode()}});
    if (phase_ == Phase::Serving) {
        withdraw();
    } else if (phase_ != Phase::Withdrawing) {
        exitLoop();
    }
}

void Supervisor::onSignal(int number, bool fromTerminal) {
    switch (number) {
        case SIGCHLD:
            children_.reap();
            break;
        case SIGUSR1:
            reportStatus();
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

/// A terminal that hangs up sends the signal to the leader of its session, and to the process group
/// in the foreground only when the leader has ended.
void Supervisor::onHangup(bool fromTerminal) {
    if (fromTerminal) {
        const bool isLeader = ::getsid(0) == ::getpid();
        if (isLeader || !command_.sharesProcessGroup()) {
            stop(SIGHUP, !isLeader);
        }
        return;  // the end of the command, which has got the signal, too, ends this process
    }
    command_.signal(SIGHUP);
    reloadToken();
    if (phase_ == Phase::Starting || phase_ == Phase::Serving) {
        reloadServices();
    }
    if (phase_ == Phase::Serving) {
        announcer_.announce();
    }
}

void Supervisor::reloadToken() {
    try {
        token_.reload();
    } catch (const std::exception& error) {
        report_.event("no-token", Severity::Error, {{"reason", error.what()}});
    }
}

void Supervisor::reloadServices() {
    if (options_.service.file.empty()) {
        return;
    }
    try {
        const auto services =
            readDescriptions(options_.service, options_.registry, Reading::Reload);
        report_.event("reloaded", Severity::Info, announcer_.update(services));
        readyCheck_.setServices(services);
    } catch (const std::exception& error) {
        report_.event("not-reloaded", Severity::Error, {{"reason", error.what()}});
    }
}

/// A signal from the terminal is not forwarded to a command in the same process group: the terminal
/// has sent it to the command, too.
void Supervisor::stop(int number, bool fromTerminal) {
    report_.event("stopping", Severity::Info, {{"signal", ::sigabbrev_np(number)}});
    signalToForward_ = fromTerminal && command_.sharesProcessGroup() ? 0 : number;
    const bool isFirst = !std::exchange(isStopRequested_, true);
    if (phase_ == Phase::Serving) {
        withdraw();
    } else if (phase_ == Phase::Withdrawing && isFirst) {
        return;  // the withdrawal has begun because the command ended
    } else if (phase_ == Phase::Stopping) {
        command_.signal(signalToForward_);
    } else {
        stopCommand();
    }
}

void Supervisor::withdraw() {
    phase_ = Phase::Withdrawing;
    serviceManager_.notify("STOPPING=1");
    announcer_.withdraw();
    finishIfDone();
}

void Supervisor::onChange(const std::string& event, const json& details) {
    static const std::map<std::string, Severity> severities{
        {"announced", Severity::Success}, {"reachable", Severity::Success},
        {"healthy", Severity::Success},   {"unreachable", Severity::Error},
        {"lost", Severity::Error},        {"unhealthy", Severity::Error},
        {"refused", Severity::Error},     {"left", Severity::Error}};
    if (!event.empty()) {
        const auto found = severities.find(event);
        report_.event(event, found == severities.end() ? Severity::Info : found->second, details);
    }
    scheduleStatusSave();
    loop_.post([this] { finishIfDone(); });
}

/// Enters the next phase when all services have left the current one.
void Supervisor::finishIfDone() {
    using State = Announcement::State;
    const std::size_t refused = announcer_.count(State::Refused);
    const std::size_t over =
        refused + announcer_.count(State::Withdrawn) + announcer_.count(State::Left);
    const bool isWithoutCommand = phase_ == Phase::Serving && options_.command.empty();
    if (phase_ == Phase::Withdrawing && over == announcer_.size()) {
        stopCommand();
    } else if (isWithoutCommand &&
               refused + announcer_.count(State::Clearing) == announcer_.size()) {
        withdraw();
    }
}

void Supervisor::stopCommand() {
    phase_ = Phase::Stopping;
    loop_.cancel(deadline_);
    readyCheck_.stop();
    announcer_.giveUp();
    if (!command_.isRunning()) {
        exitLoop();
        return;
    }
    command_.signal(signalToForward_);
    deadline_ = loop_.after(options_.stopTimeout, [this] {
        report_.event("killing", Severity::Error, {{"pid", command_.pid()}});
        command_.signal(SIGKILL);
    });
}

void Supervisor::exitLoop() {
    if (exitCode_ == 0) {
        exitCode_ = options_.command.empty() ? exitCodeWithoutCommand() : exitCodeWithCommand();
    }
    readyCheck_.stop();
    loop_.stop();
}

int Supervisor::exitCodeWithoutCommand() const {
    using State = Announcement::State;
    return announcer_.count(State::Left) + announcer_.count(State::Refused) == 0 ? kWithdrawn
                                                                                 : kNotWithdrawn;
}

/// The command's failure takes precedence over an entry that may be left.
int Supervisor::exitCodeWithCommand() const {
    const bool isLeft = announcer_.count(Announcement::State::Left) > 0;
    return command_.exitCode() == 0 && isLeft ? kEntryMayBeLeft : command_.exitCode();
}

void Supervisor::tick() {
    report_.writePending();
    if (phase_ == Phase::Serving && !isReadyTold_) {
        isReadyTold_ = serviceManager_.notify("READY=1");
    }
    scheduleStatusSave();
    loop_.after(kTick, [this] { tick(); });
}

void Supervisor::feedWatchdog() {
    if (serviceManager_.watchdogInterval() > 0ms) {
        serviceManager_.notify("WATCHDOG=1");
        loop_.after(serviceManager_.watchdogInterval(), [this] { feedWatchdog(); });
    }
}

void Supervisor::reportStatus() {
    json state = status();
    const json services = state["services"];
    state.erase("services");
    report_.event("status", Severity::Info, state);
    for (const json& service : services) {
        report_.event("status", Severity::Info, service);
    }
}

void Supervisor::scheduleStatusSave() {
    if (statusTimer_ == 0) {
        statusTimer_ = loop_.after(statusInterval_, [this] {
            statusTimer_ = 0;
            saveStatus();
        });
    }
}

void Supervisor::saveStatus() {
    const auto begin = EventLoop::Clock::now();
    serviceManager_.notifyStatus(summary());
    try {
        if (!options_.statusFile.empty()) {
            statusFile_.write(status());
        }
    } catch (const std::system_error& error) {
        report_.event("no-status-file", Severity::Error, {{"reason", error.what()}});
    }
    statusInterval_ = std::chrono::ceil<std::chrono::milliseconds>(
        kStatusIntervalFactor * (EventLoop::Clock::now() - begin));
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
