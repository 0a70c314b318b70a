#pragma once

#include "Socket.h"
#include "Stream.h"

#include <memory>

namespace orvx::communication {

/// An unencrypted stream. Its pending operations keep it alive.
class PlainStream final : public Stream, public std::enable_shared_from_this<PlainStream> {
  public:
    explicit PlainStream(Socket socket) : socket_(std::move(socket)) {}

    void read() override;
    bool hasNoInput() override;
    Written write(std::string_view head, std::string_view body) override;
    void close() noexcept override;

    /// Moves the socket out. Only without outstanding operations; the stream cannot be used
    /// afterwards.
    Socket release() { return std::move(socket_); }

  private:
    void writeRest();
    void onRead(const boost::system::error_code& error, std::size_t count);
    void onWritten(const boost::system::error_code& error, std::size_t count);

    Socket socket_;
    std::string_view body_;  // The rest of the body, sent after head_.
    std::string head_;
};

}  // namespace orvx::communication
