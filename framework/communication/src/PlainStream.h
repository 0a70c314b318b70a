#pragma once

#include "Socket.h"
#include "Stream.h"

#include <memory>

namespace orvx::communication {

/// Bytes as they are. Its operations keep it alive.
class PlainStream final : public Stream, public std::enable_shared_from_this<PlainStream> {
  public:
    explicit PlainStream(Socket socket) : socket_(std::move(socket)) {}

    void read() override;
    bool isQuiet() override;
    Written write(std::string_view head, std::string_view body) override;
    void close() noexcept override;

    /// The socket of a stream that has no outstanding operation and is not used any more.
    Socket release() { return std::move(socket_); }

  private:
    void writeRest();
    void onRead(const boost::system::error_code& error, std::size_t count);
    void onWritten(const boost::system::error_code& error, std::size_t count);

    Socket socket_;
    std::string_view body_;  // What is left to be sent.
    std::string head_;
};

}  // namespace orvx::communication
