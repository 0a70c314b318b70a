#pragma once

#include <chrono>
#include <cstdint>
#include <initializer_list>

namespace orvx::benchmarks {

using Time = std::chrono::steady_clock::time_point;

/// Connects a TCP socket without Nagle's algorithm to a port of this machine. Throws if that fails.
int connectTo(std::uint16_t port);

/// Sockets that are read by one thread, together with others.
class Source {
  public:
    Source();
    virtual ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// An epoll instance: readable when receive() has something to do.
    int epoll() const { return epoll_; }
    /// Reads some of the available bytes. Never blocks.
    virtual void receive() = 0;

  protected:
    /// Adds a socket; `index` becomes the data of its events. Called once for each socket.
    void follow(int socket, std::size_t index) const;

  private:
    const int epoll_;
};

/// Reads from the sources until that time, with an accuracy of some microseconds.
void receiveUntil(Time time, const std::initializer_list<Source*>& sources);

}  // namespace orvx::benchmarks
