#pragma once

#include <chrono>
#include <string>

namespace orvx::tools {

/// Sends the datagrams of sd_notify(3) to the service manager that started the program. Does
/// nothing if the program was not started by one. Thread-safety: none, except that several threads
/// may call notify().
class ServiceManager {
  public:
    /// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID.
    ServiceManager();
    ~ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    /// Whether a service manager started the program.
    bool isThere() const { return socket_ >= 0; }
    /// Sends assignments such as "READY=1", separated by line feeds. Returns false if that fails,
    /// for example because the queue of the service manager is full.
    bool notify(const std::string& state) const;
    /// Sends the text that the service manager shows to users, unless it equals the last one that
    /// was sent.
    void notifyStatus(const std::string& text);
    /// The interval at which to send "WATCHDOG=1": a third of the watchdog's timeout, so that a
    /// delayed notification still arrives in time. Zero: there is no watchdog.
    std::chrono::milliseconds watchdogInterval() const { return watchdogInterval_; }

  private:
    std::string address_;
    std::string status_;
    int socket_ = -1;
    std::chrono::milliseconds watchdogInterval_{0};
};

}  // namespace orvx::tools
