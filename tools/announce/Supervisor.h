#pragma once

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

/// The course of the program: the command starts, is ready, is announced; something ends it; what
/// was announced is withdrawn; the command ends.
/// Thread-safety: none; to be made before the process has a second thread.
class Supervisor {
  public:
    explicit Supervisor(const Options& options);

    /// Returns the exit code.
    int run();

  private:
    enum class Phase { Starting, Serving, Withdrawing, Stopping };

    void startCommand();
    void onReady();
    void onNotReady();
    void onCommandEnded();
    void onSignal(int number, bool fromTerminal);
    void onHangup(bool fromTerminal);
    void onChange(const std::string& event, const nlohmann::json& details);

    void readTokenAgain();
    void readServicesAgain();
    void stop(int number, bool fromTerminal);
    void withdraw();
    void goOn();
    void stopCommand();
    void leave();
    int exitCodeAlone() const;
    int exitCodeOfTheCommand() const;

    void tick();
    void feedWatchdog();
    void showStatus();
    void keepStatusSoon();
    void keepStatus();
    std::string summary();
    nlohmann::json status();

    const Options& options_;
    TokenFile token_;
    Report report_;
    ServiceManager serviceManager_;
    StatusFile statusFile_;
    EventLoop loop_;
    Signals signals_;
    Children children_;
    Command command_;
    ReadyCheck readyCheck_;

    Phase phase_ = Phase::Starting;
    const std::string startedAt_ = timestamp();
    EventLoop::Timer bound_ = 0;
    EventLoop::Timer nextStatus_ = 0;
    /// From one status to the next, which both look at all services.
    std::chrono::milliseconds statusPause_{0};
    bool isToldToStop_ = false;
    /// What the command is told when everything is withdrawn; 0: nothing.
    int signalToPassOn_ = 0;
    /// What leave() shall not find out by itself.
    int exitCode_ = 0;
    /// Last: its threads post to the loop.
    Announcer announcer_;
};

}  // namespace orvx::announce
