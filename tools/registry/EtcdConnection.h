#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/string_body.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Stream.h"
#include "Url.h"

namespace orvx::registry {

/// An HTTP connection to one member of etcd, which sends one request after the other. It lives as
/// long as an operation is pending.
///
/// Thread-safety: the thread that runs the io_context only. Handlers are never called from inside a
/// member function. After an error only close() may be called.
class EtcdConnection : public std::enable_shared_from_this<EtcdConnection> {
  public:
    using Error = boost::beast::error_code;
    using Handler = std::function<void(Error)>;
    using Time = std::chrono::steady_clock::time_point;

    /// `tls`: null for plain HTTP; must exist until close(). `maxBody`: limit for the body of an
    /// answer, in bytes. `onNoDescriptor`: as in EtcdOptions.
    EtcdConnection(boost::asio::io_context& context, Url member, boost::asio::ssl::context* tls,
                   std::uint64_t maxBody, std::function<void()> onNoDescriptor);

    /// Connects if necessary, sends the request, and reads the header of the answer. The deadline
    /// also applies to readRest().
    void post(const std::string& target, std::string body, Time deadline, Handler handler);
    /// After post(): reads the body.
    void readRest(Handler handler);
    /// After post(): waits, without a limit, for the next piece of a body of any size. isEnded()
    /// then returns whether it was the last piece.
    void readPiece(Handler handler);

    /// Ends the connection without calling the handler. May be called again.
    void close();

    boost::beast::http::status status() const { return parser_->get().result(); }
    /// The part of the body that was read since it was last taken.
    std::string takeBody() { return std::exchange(parser_->get().body(), {}); }
    bool isEnded() const { return parser_->is_done(); }
    /// Whether the member may have received the request.
    bool isSent() const { return isSent_; }
    /// Whether a byte of the answer was read.
    bool isAnswered() const { return parser_ && parser_->got_some(); }
    /// After a complete answer: whether another request can be sent. False as soon as the member
    /// has closed the connection.
    bool isReusable();

  private:
    void onResolved(Error error, const boost::asio::ip::tcp::resolver::results_type& results);
    void connect();
    void demandDescriptor();
    void onConnected(Error error);
    void onHandshake(Error error);
    void send();
    void onSent(Error error, std::size_t);
    void onRead(Error error, std::size_t);
    void finish(Error error);
    /// Makes a handler of `step` that keeps this object alive.
    template <typename Step>
    auto then(Step step) {
        return boost::beast::bind_front_handler(step, shared_from_this());
    }

    boost::asio::io_context& context_;
    const Url member_;
    boost::asio::ssl::context* const tls_;
    const std::uint64_t maxBody_;
    const std::function<void()> onNoDescriptor_;
    Time deadline_{};
    Handler handler_{};  // empty: no operation is pending
    boost::asio::ip::tcp::resolver resolver_;
    boost::asio::steady_timer lookupTimer_;
    bool isLookingUp_ = false;
    std::vector<boost::asio::ip::tcp::endpoint> addresses_{};  // not tried yet, the next one last
    std::optional<Stream> stream_{};
    boost::beast::flat_buffer buffer_;
    boost::beast::http::request<boost::beast::http::string_body> request_{};
    std::optional<boost::beast::http::response_parser<boost::beast::http::string_body>> parser_{};
    bool isSent_ = false;
};

}  // namespace orvx::registry
