// The life of one connection, as a chain of asynchronous steps: first bytes, header, body, answer.
// A step that fails and is not followed by another one ends the connection. One that watches the
// entries goes round in another circle: send a piece, wait for news.
// Entered only by the thread that runs the server's io_context.
// There is no lock.

#include "Connection.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

namespace orvx::registry {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

constexpr std::size_t kFirstRead = 2'048;
constexpr std::size_t kMaxBuffer = 16'384;
constexpr std::uint32_t kMaxHeader = 8'192;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

// The kernel takes twice as much, and a piece is shorter than 16 KiB: a watcher that reads nothing
// costs less than 64 KiB.
constexpr int kWatcherSendBuffer = 16'384;
constexpr std::string_view kRetry = "retry: 1000\n\n";
// A watcher that is awake sends at most so often, one that sleeps looks for checks and what
// expired.
constexpr std::chrono::milliseconds kBetweenNews{50};
constexpr std::chrono::seconds kLongestSleep{1};

}  // namespace

Connection::Connection(asio::ip::tcp::socket socket, Shared& shared)
    : shared_(shared),
      position_(shared_.connections.insert(shared_.connections.end(), this)),
      stream_(std::move(socket)),
      buffer_(kMaxBuffer),
      delay_(stream_.get_executor()) {
    Error error;
    address_ = stream_.socket().remote_endpoint(error).address().to_string();
}

Connection::~Connection() {
    close();
}

void Connection::close() {
    if (isOpen()) {
        shared_.connections.erase(std::exchange(position_, shared_.connections.end()));
        stream_.close();
        delay_.cancel();
    }
}

void Connection::Shared::closeOldest() {
    if (!connections.empty()) {
        connections.front()->close();
    }
}

void Connection::Shared::wakeWatchers() {
    const std::uint64_t revision = dispatcher.store().lastPutOrRemoval();
    if (std::exchange(announcedRevision, revision) != revision) {
        for (Connection* watcher : idleWatchers) {
            watcher->delay_.cancel();
        }
    }
}

void Connection::awaitRequest() {
    response_ = {};
    parser_.emplace();
    parser_->header_limit(kMaxHeader);
    parser_->body_limit(shared_.options.maxBody);
    if (buffer_.size() > 0) {
        return readHeader();  // sent along with the request before
    }
    stream_.expires_after(shared_.options.idleTimeout);
    stream_.async_read_some(
        buffer_.prepare(kFirstRead),
        beast::bind_front_handler(&Connection::onFirstBytes, shared_from_this()));
}

void Connection::onFirstBytes(Error error, std::size_t size) {
    if (!error) {
        buffer_.commit(size);
        readHeader();
    }
}

void Connection::readHeader() {
    stream_.expires_after(shared_.options.requestTimeout);  // for the body too
    http::async_read_header(stream_, buffer_, *parser_,
                            beast::bind_front_handler(&Connection::onHeader, shared_from_this()));
}

void Connection::onHeader(Error error, std::size_t) {
    if (error) {
        return refuse(error);
    }
    const auto& header = parser_->get();
    if (header.version() >= 11 && beast::iequals(header[http::field::expect], "100-continue")) {
        return asio::async_write(
            stream_, asio::buffer(kContinue),
            beast::bind_front_handler(&Connection::readBody, shared_from_this()));
    }
    readBody({}, 0);
}

void Connection::readBody(Error error, std::size_t) {
    if (!error) {
        http::async_read(stream_, buffer_, *parser_,
                         beast::bind_front_handler(&Connection::onRequest, shared_from_this()));
    }
}

void Connection::onRequest(Error error, std::size_t) {
    if (error) {
        return refuse(error);
    }
    Reaction reaction = shared_.dispatcher.react(parser_->get());
    record(parser_->get(), reaction.response, reaction.remark);
    parser_.reset();
    shared_.wakeWatchers();
    if (reaction.watch) {
        return beginWatch(*reaction.response, *reaction.watch);
    }
    if (reaction.delay.count() == 0) {
        return reaction.response ? respond(std::move(*reaction.response)) : reset();
    }
    stream_.expires_never();
    delay_.expires_after(reaction.delay);
    delay_.async_wait(
        [self = shared_from_this(), response = std::move(reaction.response)](Error) mutable {
            if (self->isOpen()) {
                response ? self->respond(std::move(*response)) : self->reset();
            }
        });
}

bool Connection::isOpen() const {
    return position_ != shared_.connections.end();
}

void Connection::reset() {
    Error error;
    stream_.socket().set_option(asio::socket_base::linger(true, 0), error);
    close();
}

void Connection::record(const Request& request, const std::optional<Response>& response,
                        std::string_view remark) const {
    if (!shared_.log) {
        return;
    }
    std::string line;
    if (!request.target().empty()) {
        line = std::string(request.method_string()) + ' ' + std::string(request.target()) +
               " HTTP/" + std::to_string(request.version() / 10) + '.' +
               std::to_string(request.version() % 10);
    }
    shared_.log->write(address_, line, response ? response->result_int() : 0,
                       response ? response->body().size() : 0, remark);
}

void Connection::refuse(Error error) {
    static const Error kHttpError = http::error::bad_method;
    if (error.category() != kHttpError.category() || error == http::error::end_of_stream) {
        return;  // gone, too slow, or closed by us
    }
    auto status = http::status::bad_request;
    if (error == http::error::body_limit) {
        status = http::status::payload_too_large;
    } else if (error == http::error::header_limit) {
        status = http::status::request_header_fields_too_large;
    }
    Response response = failure(status, error.message());
    response.keep_alive(false);
    record({}, response, {});
    respond(std::move(response));
}

void Connection::respond(Response response) {
    response_ = std::move(response);
    stream_.expires_after(shared_.options.writeTimeout);
    http::async_write(stream_, response_,
                      beast::bind_front_handler(&Connection::onAnswered, shared_from_this()));
}

void Connection::onAnswered(Error error, std::size_t) {
    if (error) {
        return;
    }
    if (!isOpen()) {
        return;
    }
    auto& connections = shared_.connections;
    connections.splice(connections.end(), connections, position_);
    if (response_.keep_alive()) {
        return awaitRequest();
    }
    stream_.socket().shutdown(asio::ip::tcp::socket::shutdown_send, error);
    farewell_ = std::chrono::steady_clock::now() + shared_.options.farewellTimeout;
    stream_.expires_at(farewell_);
    discardInput(error, 0);
}

// Closing while the client still sends would reset the connection, and take the answer with it. The
// stream's time-out alone is for a client that is silent: it never comes between reads that
// succeed.
void Connection::discardInput(Error error, std::size_t) {
    if (!error && std::chrono::steady_clock::now() < farewell_) {
        buffer_.clear();
        stream_.async_read_some(
            buffer_.prepare(kFirstRead),
            beast::bind_front_handler(&Connection::discardInput, shared_from_this()));
    }
}

// Nothing is read any more: that the client is gone shows when it is sent the next heartbeat. What
// ends is reset, as a stream has no end: nothing that a client has not taken stays in the kernel.
void Connection::beginWatch(const Response& response, const Watch& watch) {
    buffer_.consume(buffer_.size());
    buffer_.shrink_to_fit();
    Error error;
    stream_.socket().set_option(asio::socket_base::send_buffer_size(kWatcherSendBuffer), error);
    stream_.socket().set_option(asio::socket_base::linger(true, 0), error);
    watch_ = watch;
    std::ostringstream header;
    header << response.base() << kRetry << shared_.dispatcher.news(*watch_);
    send(header.str());
}

void Connection::sendNews() {
    std::string piece = shared_.dispatcher.news(*watch_);
    piece.empty() ? awaitNews() : send(std::move(piece));
}

void Connection::send(std::string piece) {
    piece_ = std::move(piece);
    stream_.expires_after(shared_.options.writeTimeout);
    asio::async_write(stream_, asio::buffer(piece_),
                      beast::bind_front_handler(&Connection::onNewsSent, shared_from_this()));
}

void Connection::onNewsSent(Error error, std::size_t size) {
    if (error || !isOpen()) {
        return;
    }
    stream_.expires_never();
    shared_.connections.splice(shared_.connections.end(), shared_.connections, position_);
    if (size >= Watch::kPiece) {
        return sendNews();
    }
    piece_ = {};
    delay_.expires_after(kBetweenNews);
    delay_.async_wait([self = shared_from_this()](Error) {
        if (self->isOpen()) {
            self->sendNews();
        }
    });
}

void Connection::awaitNews() {
    auto& idle = shared_.idleWatchers;
    delay_.expires_after(kLongestSleep);
    delay_.async_wait([self = shared_from_this(), position = idle.insert(idle.end(), this)](Error) {
        self->shared_.idleWatchers.erase(position);
        if (self->isOpen()) {
            self->sendNews();
        }
    });
}

}  // namespace orvx::registry
