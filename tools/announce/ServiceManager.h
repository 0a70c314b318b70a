#pragma once

#include <chrono>
#include <string>

namespace orvx::announce {

/// The service manager that started the program, if one did and wants to be told: the datagrams of
/// sd_notify(3). Without one nothing happens.
/// Thread-safety: none.
class ServiceManager {
  public:
    /// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID.
    ServiceManager();
    ~ServiceManager();
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    /// Such as "READY=1"; several are separated by line feeds.
    void tell(const std::string& state) const;
    /// What the service manager shows for people. Told when it is another one than before.
    void tellStatus(const std::string& text);
    /// How often "WATCHDOG=1" is to be told: a third of the time after which the service manager
    /// kills, so that a delay does not make a gap of half that time. Zero: not at all.
    std::chrono::milliseconds watchdogInterval() const { return watchdogInterval_; }

  private:
    std::string address_;
    std::string status_;
    int socket_ = -1;
    std::chrono::milliseconds watchdogInterval_{0};
};

}  // namespace orvx::announce
