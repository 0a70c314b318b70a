#pragma once

#include "Requests.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace orvx::benchmarks {

/// The minimum: the cost of the kernel alone. Sends prepared texts, and recognises only the one
/// answer that the benchmark server gives.
class EpollLoop {
  public:
    EpollLoop(std::uint16_t port, std::size_t connections);
    ~EpollLoop();
    EpollLoop(const EpollLoop&) = delete;
    EpollLoop& operator=(const EpollLoop&) = delete;

    /// Sends all requests and waits for the answers. Throws unless each answer is as expected.
    void run(Method method, const Requests& requests);

  private:
    void begin(int socket, Method method, const Requests& requests);
    void end(int socket, Method method, const Requests& requests);

    const std::string host_;
    const int epoll_;
    std::vector<int> sockets_;
    std::string text_;
    std::size_t next_ = 0;
    std::size_t done_ = 0;
};

}  // namespace orvx::benchmarks
