#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <optional>
#include <utility>

namespace orvx::registry {

/// A TCP or TLS connection with the stream interface of Asio and Beast. The time-outs of tcp()
/// apply to it.
///
/// Thread-safety: that of tcp().
class Stream {
  public:
    using executor_type = boost::beast::tcp_stream::executor_type;

    /// `tls`: null for plain TCP; need not outlive the constructor.
    Stream(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context* tls)
        : tcp_(std::move(socket)) {
        if (tls != nullptr) {
            tls_.emplace(tcp_, *tls);
        }
    }

    executor_type get_executor() { return tcp_.get_executor(); }
    boost::beast::tcp_stream& tcp() { return tcp_; }
    /// Null without TLS.
    SSL* tls() { return tls_ ? tls_->native_handle() : nullptr; }

    template <typename Buffers, typename Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler) {
        if (tls_) {
            tls_->async_read_some(buffers, std::forward<Handler>(handler));
        } else {
            tcp_.async_read_some(buffers, std::forward<Handler>(handler));
        }
    }

    template <typename Buffers, typename Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler) {
        if (tls_) {
            tls_->async_write_some(buffers, std::forward<Handler>(handler));
        } else {
            tcp_.async_write_some(buffers, std::forward<Handler>(handler));
        }
    }

    /// Only with TLS.
    template <typename Handler>
    void handshake(boost::asio::ssl::stream_base::handshake_type side, Handler&& handler) {
        tls_->async_handshake(side, std::forward<Handler>(handler));
    }
    template <typename Handler>
    void shutdown(Handler&& handler) {
        tls_->async_shutdown(std::forward<Handler>(handler));
    }

  private:
    boost::beast::tcp_stream tcp_;
    std::optional<boost::asio::ssl::stream<boost::beast::tcp_stream&>> tls_;
};

}  // namespace orvx::registry
