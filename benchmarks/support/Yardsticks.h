#pragma once

#include "Requests.h"
#include "Transport.h"

#include <sys/types.h>

#include <cstddef>

namespace orvx::benchmarks {

/// Other ways to send the same requests, in a separate process: the heap of the measured library
/// must not change their cost.
class Yardsticks {
  public:
    enum class Kind {
        CurlLoop,  // libcurl's multi interface alone: the yardstick.
        Kernel,    // One send and one recv a request: the floor. Without TLS.
        Httplib,   // cpp-httplib, blocking, one connection. Without TLS.
        Easy,      // libcurl's easy interface, blocking, one handle.
        Threads,   // A thread for each connection, each with a handle as above.
    };

    /// Must be made while the process has one thread. It will send `requests`.
    Yardsticks(const Address& server, std::size_t connections, const Requests& requests);
    ~Yardsticks();
    Yardsticks(const Yardsticks&) = delete;
    Yardsticks& operator=(const Yardsticks&) = delete;

    /// Sends all requests. Returns the processor time for one of them in microseconds. The first
    /// run includes opening the connections.
    double cost(Kind kind, Method method) const;
    double curl(Method method) const { return cost(Kind::CurlLoop, method); }

  private:
    struct Order {
        Kind kind;
        Method method;
    };

    [[noreturn]] static void serve(int socket, const Address& server, std::size_t connections,
                                   const Requests& requests);

    pid_t process_ = 0;
    int socket_ = -1;
};

}  // namespace orvx::benchmarks
