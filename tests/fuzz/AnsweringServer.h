#pragma once

#include <orvx/utility/Mutex.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>

namespace orvx::fuzz {

/// A server on the loopback that answers every request with the same bytes and ends each
/// connection.
///
/// Thread-safe. It answers on its own thread.
class AnsweringServer {
  public:
    enum class Ending {
        Close,
        Reset,  ///< bytes that were not sent yet are lost
        Again,  ///< waits briefly for a second request, and answers it, too
        Stall,  ///< waits until the client closes the connection
    };
    struct Answer {
        std::string bytes;
        std::size_t piece = 0;  ///< the number of bytes that are sent at once; 0: all
        Ending ending = Ending::Close;
    };

    AnsweringServer();
    ~AnsweringServer();
    AnsweringServer(const AnsweringServer&) = delete;
    AnsweringServer& operator=(const AnsweringServer&) = delete;

    std::uint16_t port() const { return port_; }
    /// Takes effect with the next connection. Ends the open connection, because a client may keep
    /// it without a request.
    void answerWith(Answer answer) ORVX_EXCLUDES(mutex_);

  private:
    void run();
    Answer begin(int connection) ORVX_EXCLUDES(mutex_);
    void end() ORVX_EXCLUDES(mutex_);

    const int listener_;
    const std::uint16_t port_;
    utility::Mutex mutex_;
    std::condition_variable ended_;
    Answer answer_ ORVX_GUARDED_BY(mutex_);
    int connection_ ORVX_GUARDED_BY(mutex_) = -1;  ///< -1: no connection is open
    std::thread thread_;
};

}  // namespace orvx::fuzz
