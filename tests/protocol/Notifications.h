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
    /// `name` is a file to be created, or an abstract name after "@". Throws std::runtime_error.
    explicit Notifications(const std::string& name);

    /// The next datagram; absent if none arrives within the time.
    std::optional<std::string> within(std::chrono::milliseconds patience) const;
    /// The next datagram. Throws std::runtime_error if none arrives within ten seconds.
    std::string next() const;
    /// Fills the queue with empty datagrams, so that no further one can be sent until they are
    /// read.
    void fillQueue() const;
    /// Reads datagrams until one has this text.
    void await(const std::string& wanted) const;

  private:
    const std::string name_;
    Socket socket_;
};

}  // namespace orvx::testing
