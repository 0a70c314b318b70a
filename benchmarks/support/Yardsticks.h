#pragma once

#include "Requests.h"

#include <sys/types.h>

#include <cstdint>

namespace orvx::benchmarks {

/// libcurl alone and the kernel alone, in a process of their own: the heap of the one that they are
/// compared with must not change what they cost.
class Yardsticks {
  public:
    /// To be made while the process has one thread. What they send is `requests`.
    Yardsticks(std::uint16_t port, std::size_t connections, const Requests& requests);
    ~Yardsticks();
    Yardsticks(const Yardsticks&) = delete;
    Yardsticks& operator=(const Yardsticks&) = delete;

    /// Sends all requests; processor time of one, in microseconds.
    double curl(Method method) const { return ask({true, method}); }
    double floor(Method method) const { return ask({false, method}); }

  private:
    struct Order {
        bool isForCurl;
        Method method;
    };

    double ask(Order order) const;
    [[noreturn]] static void serve(int socket, std::uint16_t port, std::size_t connections,
                                   const Requests& requests);

    pid_t process_ = 0;
    int socket_ = -1;
};

}  // namespace orvx::benchmarks
