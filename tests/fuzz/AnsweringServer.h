#pragma once

#include <orvx/utility/Mutex.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>

namespace orvx::fuzz {

/// A server on the loopback that answers every request with the same bytes, connection after
/// connection, and ends each.
///
/// Thread-safety: safe by itself. It answers on a thread of its own.
class AnsweringServer {
  public:
    enum class Ending {
        Close,
        Reset,  ///< what is on its way is lost
        Again,  ///< waits briefly for a second request, and answers it too
        Stall,  ///< waits for the client to give up
    };
    struct Answer {
        std::string bytes;
        std::size_t piece = 0;  ///< so many bytes are sent at once; 0: all
        Ending ending = Ending::Close;
    };

    AnsweringServer();
    ~AnsweringServer();
    AnsweringServer(const AnsweringServer&) = delete;
    AnsweringServer& operator=(const AnsweringServer&) = delete;

    std::uint16_t port() const { return port_; }
    /// For connections from now on. Ends the one that is open: a client may keep it without a
    /// request.
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
    int connection_ ORVX_GUARDED_BY(mutex_) = -1;  ///< -1: none is open
    std::thread thread_;
};

}  // namespace orvx::fuzz
