#pragma once

#include <memory>
#include <string>

#include "Announcer.h"
#include "Children.h"
#include "Command.h"
#include "EventLoop.h"
#include "Options.h"
#include "ReadyCheck.h"
#include "Report.h"
#include "ServiceManager.h"
#include "Signals.h"
#include "StatusFile.h"
#include "TokenFile.h"

namespace orvx::announce {

/// Runs the program: starts the command, waits until it is ready, announces the services, waits for
/// a signal or the end of the command, withdraws the services, and ends the command.
/// Thread-safety: none. Construct it before the process has a second thread.
class Supervisor {
  public:
    explicit Supervisor(const Options& options);

    /// Returns the exit code.
    int run();

  private:
    enum class Phase { Starting, Serving, Withdrawing, Stopping };

    void abandon();
    void startCommand();
    void onReady();
    void onNotReady();
    void onCommandEnded();
    void onSignal(int number, bool fromTerminal);
    void onHangup(bool fromTerminal);
    void onChange(const std::string& event, const nlohmann::json& details);

    void reloadToken();
    void reloadServices();
    void stop(int number, bool fromTerminal);
    void withdraw();
    void finishIfDone();
    void stopCommand();
    void exitLoop();
    int exitCodeWithoutCommand() const;
    int exitCodeWithCommand() const;

    void tick();
    void feedWatchdog();
    void reportStatus();
    void scheduleStatusSave();
    void saveStatus();
    std::string summary();
    nlohmann::json status();

    /// Freed for the end of a program whose memory has run out.
    std::unique_ptr<char[]> reserve_;
    const Options& options_;
    TokenFile token_;
    Report report_;
    tools::ServiceManager serviceManager_;
    StatusFile statusFile_;
    EventLoop loop_;
    Signals signals_;
    Children children_;
    Command command_;
    ReadyCheck readyCheck_;

    Phase phase_ = Phase::Starting;
    const std::string startedAt_ = timestamp();
    EventLoop::Timer deadline_ = 0;
    EventLoop::Timer statusTimer_ = 0;
    /// The time between two saves of the status. Each save reads the state of all services.
    std::chrono::milliseconds statusInterval_{0};
    /// Whether the service manager knows that the command is ready.
    bool isReadyTold_ = false;
    bool isStopRequested_ = false;
    /// The signal that the command gets after the withdrawal; 0: none.
    int signalToForward_ = 0;
    /// 0: exitLoop() computes it.
    int exitCode_ = 0;
    /// Last, so that its threads, which post to the loop, end first.
    Announcer announcer_;
};

}  // namespace orvx::announce
