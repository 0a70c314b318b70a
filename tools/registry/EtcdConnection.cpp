// A request is a chain of asynchronous steps: look the name up, connect to one address after the
// other, TLS handshake, send, read the header. The body is read on demand. A failure ends the
// chain, except that the next address is tried when connecting fails.
// Entered only by the thread that runs the io_context.
// There is no lock.

#include "EtcdConnection.h"

#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/verb.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/none.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>

#include "Tls.h"

namespace orvx::registry {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;

namespace {

constexpr std::size_t kMaxBuffer = 65'536;
constexpr int kHttp11 = 11;

}  // namespace

EtcdConnection::EtcdConnection(asio::io_context& context, Url member, asio::ssl::context* tls,
                               std::uint64_t maxBody, std::function<void()> onNoDescriptor)
    : context_(context),
      member_(std::move(member)),
      tls_(tls),
      maxBody_(maxBody),
      onNoDescriptor_(std::move(onNoDescriptor)),
      resolver_(context),
      lookupTimer_(context),
      buffer_(kMaxBuffer) {}

void EtcdConnection::post(const std::string& target, std::string body, Time deadline,
                          Handler handler) {
    request_ = {http::verb::post, target, kHttp11, std::move(body)};
    request_.set(http::field::host, member_.authority);
    request_.set(http::field::content_type, "application/json");
    // With this header a member without a leader refuses at once; otherwise the request would wait.
    request_.set("Grpc-Metadata-hasleader", "true");
    request_.prepare_payload();
    parser_.emplace();
    parser_->body_limit(maxBody_);
    isSent_ = false;
    deadline_ = deadline;
    handler_ = std::move(handler);
    if (stream_) {
        return send();
    }
    Error isName;
    const auto address = asio::ip::make_address(member_.host, isName);
    if (!isName) {
        addresses_ = {{address, static_cast<std::uint16_t>(std::stoul(member_.port))}};
        return connect();
    }
    // A lookup cannot be interrupted: its handler may be called long after the deadline.
    isLookingUp_ = true;
    demandDescriptor();
    resolver_.async_resolve(member_.host, member_.port, then(&EtcdConnection::onResolved));
    lookupTimer_.expires_at(deadline);
    lookupTimer_.async_wait([self = shared_from_this()](Error) {
        if (self->isLookingUp_) {
            self->isLookingUp_ = false;
            self->finish(beast::error::timeout);
        }
    });
}

void EtcdConnection::onResolved(Error error, const tcp::resolver::results_type& results) {
    if (!std::exchange(isLookingUp_, false)) {
        return;
    }
    lookupTimer_.cancel();
    if (error) {
        return finish(error);
    }
    addresses_.assign(results.begin(), results.end());
    std::reverse(addresses_.begin(), addresses_.end());
    connect();
}

void EtcdConnection::connect() {
    // Each address gets an equal share of the remaining time, so that a silent one does not use it
    // up.
    const auto share = (deadline_ - std::chrono::steady_clock::now()) /
                       static_cast<std::ptrdiff_t>(addresses_.size());
    stream_.emplace(tcp::socket(context_), tls_);
    stream_->tcp().expires_after(std::max(share, share.zero()));
    const tcp::endpoint address = addresses_.back();
    addresses_.pop_back();
    demandDescriptor();
    stream_->tcp().async_connect(address, then(&EtcdConnection::onConnected));
}

/// Tries whether a file descriptor is left, and otherwise demands one.
void EtcdConnection::demandDescriptor() {
    tcp::socket trial(context_);
    Error error;
    trial.open(tcp::v4(), error);
    if (onNoDescriptor_ && (error == asio::error::no_descriptors ||
                            error == boost::system::errc::too_many_files_open_in_system)) {
        onNoDescriptor_();
    }
}

void EtcdConnection::onConnected(Error error) {
    if (!handler_) {
        return;
    }
    if (error) {
        return addresses_.empty() ? finish(error) : connect();
    }
    Error ignored;
    stream_->tcp().socket().set_option(tcp::no_delay(true), ignored);
    if (tls_ == nullptr) {
        return send();
    }
    expectHost(*stream_->tls(), member_.host);
    stream_->tcp().expires_at(deadline_);
    stream_->handshake(asio::ssl::stream_base::client, then(&EtcdConnection::onHandshake));
}

void EtcdConnection::onHandshake(Error error) {
    if (!handler_) {
        return;
    }
    if (error) {
        return finish(error);
    }
    send();
}

void EtcdConnection::send() {
    isSent_ = true;
    stream_->tcp().expires_at(deadline_);
    http::async_write(*stream_, request_, then(&EtcdConnection::onSent));
}

void EtcdConnection::onSent(Error error, std::size_t) {
    if (!handler_) {
        return;
    }
    if (error) {
        return finish(error);
    }
    http::async_read_header(*stream_, buffer_, *parser_, then(&EtcdConnection::onRead));
}

void EtcdConnection::readRest(Handler handler) {
    handler_ = std::move(handler);
    http::async_read(*stream_, buffer_, *parser_, then(&EtcdConnection::onRead));
}

void EtcdConnection::readPiece(Handler handler) {
    handler_ = std::move(handler);
    parser_->body_limit(boost::none);
    stream_->tcp().expires_never();
    http::async_read_some(*stream_, buffer_, *parser_, then(&EtcdConnection::onRead));
}

void EtcdConnection::onRead(Error error, std::size_t) {
    finish(error);
}

void EtcdConnection::finish(Error error) {
    if (const Handler handler = std::exchange(handler_, nullptr)) {
        handler(error);
    }
}

void EtcdConnection::close() {
    handler_ = nullptr;
    isLookingUp_ = false;
    resolver_.cancel();
    lookupTimer_.cancel();
    if (stream_) {
        stream_->tcp().close();
    }
}

bool EtcdConnection::isReusable() {
    // Readable bytes mean that the connection has ended, or are no answer to any request.
    char byte = 0;
    return parser_ && parser_->keep_alive() && buffer_.size() == 0 &&
           ::recv(stream_->tcp().socket().native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
           (errno == EAGAIN || errno == EWOULDBLOCK);
}

}  // namespace orvx::registry
