#pragma once

#include "HostileServer.h"

#include <chrono>
#include <optional>
#include <string>

namespace orvx::testing {

/// The socket at which a service manager receives the datagrams of sd_notify(3).
/// Thread-safety: none.
class Notifications {
  public:
    /// `name`: a file to be created, or an abstract name after "@". Throws std::runtime_error.
    explicit Notifications(const std::string& name);

    /// The next datagram; empty when none arrives in that time.
    std::optional<std::string> within(std::chrono::milliseconds patience) const;
    /// Throws std::runtime_error when nothing arrives for ten seconds.
    std::string next() const;
    /// Returns after a datagram with this text.
    void await(const std::string& wanted) const;

  private:
    Socket socket_;
};

}  // namespace orvx::testing
