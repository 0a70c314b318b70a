#pragma once

#include "Socket.h"
#include "Stream.h"

#include <boost/asio/ssl/stream.hpp>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orvx::communication {

/// A TLS stream. Its pending operations keep it alive and use only objects that it owns.
class TlsStream final : public Stream, public std::enable_shared_from_this<TlsStream> {
  public:
    /// Called with the result of a handshake; not called after close().
    using HandshakeHandler = std::function<void(const boost::system::error_code&)>;

    /// Throws std::bad_alloc, or boost::system::system_error.
    TlsStream(Socket socket, std::shared_ptr<boost::asio::ssl::context> context)
        : context_(std::move(context)), stream_(std::move(socket), *context_) {}
    ~TlsStream() override;

    SSL& native() { return *stream_.native_handle(); }
    /// Throws std::bad_alloc.
    void handshake(HandshakeHandler handler);

    void read() override;
    bool hasNoInput() override;
    Written write(std::string_view head, std::string_view body) override;
    void close() noexcept override;

  private:
    void writeNext();
    void onRead(const boost::system::error_code& error, std::size_t count);
    void onWritten(const boost::system::error_code& error, std::size_t count);

    const std::shared_ptr<boost::asio::ssl::context> context_;
    boost::asio::ssl::stream<Socket> stream_;
    HandshakeHandler handshakeHandler_;
    std::vector<char> out_;  // At most one record.
    std::size_t written_ = 0;
    std::string head_;  // The rest of the head, sent after out_.
    std::string_view body_;
};

}  // namespace orvx::communication
