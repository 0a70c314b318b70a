#pragma once

#include "Transport.h"

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>

namespace orvx::benchmarks {

/// The benchmark server, which runs on another processor while this object lives.
class ServerProcess {
  public:
    /// Throws if this process may run on the server's processor: see useFirstProcessor().
    ServerProcess();
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    std::uint16_t port() const { return ports_[0]; }
    Address address(Transport transport = Transport::Plain) const {
        return {ports_[static_cast<std::size_t>(transport)], transport};
    }

    /// These begin and end the time in which the server acts as if it had lost every entry.
    void lose() { ask("/lose"); }
    void find() { ask("/found"); }
    /// The number of HEADs so far.
    std::uint64_t heads();
    /// Blocks until this many HEADs have come in total. Uses no processor time.
    void waitForHeads(std::uint64_t count) { ask("/heads/" + std::to_string(count)); }

  private:
    std::string ask(const std::string& path) const;

    pid_t process_ = 0;
    int end_ = -1;
    int socket_ = -1;
    std::array<std::uint16_t, 2> ports_{};
};

}  // namespace orvx::benchmarks
