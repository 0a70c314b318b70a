// A connection is a chain of asynchronous steps: handshake, first bytes, header, body, answer. A
// request that is refused by its header alone is answered before its body is read.
// A step that fails and starts no other step ends the connection. A connection that watches the
// entries repeats two other steps: send a piece, wait for changes.
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
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "Tls.h"

namespace orvx::registry {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

constexpr std::size_t kFirstRead = 2'048;
constexpr std::size_t kMaxBuffer = 16'384;
constexpr std::uint32_t kMaxHeader = 8'192;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

constexpr std::string_view kRetry = "retry: 1000\n\n";
// The minimum time between two pieces for a watcher, and the time after which an idle watcher looks
// for checks and expired entries.
constexpr std::chrono::milliseconds kBetweenNews{50};
constexpr std::chrono::seconds kLongestSleep{1};

bool isRefusal(http::status status) {
    return status == http::status::bad_request || status == http::status::unauthorized ||
           status == http::status::forbidden || status == http::status::too_many_requests ||
           status == http::status::request_header_fields_too_large;
}

/// Whether the end of the body cannot be known (RFC 9112, 6.3). Beast takes it for a request
/// without a body, and what follows for the next request.
template <typename Parser>
bool hasUnknownEnd(const Parser& parser) {
    return parser.get().find(http::field::transfer_encoding) != parser.get().end() &&
           !parser.chunked();
}

}  // namespace

Connection::Connection(asio::ip::tcp::socket socket, const asio::ip::address& address,
                       Shared& shared)
    : shared_(shared),
      position_(shared_.connections.insert(shared_.connections.end(), this)),
      stream_(std::move(socket), shared.tls.get()),
      peer_{address, {}},
      generation_(shared.generation),
      buffer_(kMaxBuffer),
      delay_(stream_.get_executor()) {}

Connection::~Connection() {
    close();
}

void Connection::close() {
    if (isOpen()) {
        shared_.connections.erase(std::exchange(position_, shared_.connections.end()));
        if (watch_) {
            shared_.dispatcher.counts().removeWatcher();
        }
        stream_.tcp().close();
        delay_.cancel();
        if (shared_.connections.empty() && shared_.onLastClosed) {
            std::exchange(shared_.onLastClosed, nullptr)();  // may destroy this connection
        }
    }
}

void Connection::Shared::closeOldest() {
    if (!connections.empty()) {
        connections.front()->close();
    }
}

void Connection::Shared::endOldOnes() {
    ++generation;
    for (auto next = connections.begin(); next != connections.end();) {
        Connection* const connection = *next++;
        if (connection->isIdle_ || connection->watch_) {
            connection->close();
        }
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

bool Connection::hasFailed(Error error) const {
    if (error == beast::error::timeout) {
        shared_.dispatcher.counts().countDrop(Drop::Timeout);
    }
    return error || !isOpen();
}

void Connection::begin() {
    if (stream_.tls() == nullptr) {
        return awaitRequest();
    }
    stream_.tcp().expires_after(shared_.options.requestTimeout);
    stream_.handshake(asio::ssl::stream_base::server,
                      beast::bind_front_handler(&Connection::onHandshake, shared_from_this()));
}

void Connection::onHandshake(Error error) {
    if (hasFailed(error)) {
        if (error != beast::error::timeout && isOpen()) {
            shared_.dispatcher.counts().countDrop(Drop::Handshake);
        }
        return;
    }
    if (generation_ != shared_.generation) {
        return;  // the certificate was verified with files that were replaced since
    }
    peer_.certificate = subjectOfPeer(*stream_.tls());
    awaitRequest();
}

void Connection::awaitRequest() {
    response_ = {};
    isForEverybody_ = false;
    parser_.emplace();
    parser_->header_limit(kMaxHeader);
    // The header must be read to its end before the length of the body is judged, so that the token
    // and the rate are checked first. Nothing of the body is kept until readBody().
    parser_->body_limit(std::numeric_limits<std::uint64_t>::max());
    if (buffer_.size() > 0) {
        return readHeader();  // arrived together with the previous request
    }
    isIdle_ = true;
    stream_.tcp().expires_after(shared_.options.idleTimeout);
    stream_.async_read_some(
        buffer_.prepare(kFirstRead),
        beast::bind_front_handler(&Connection::onFirstBytes, shared_from_this()));
}

void Connection::onFirstBytes(Error error, std::size_t size) {
    isIdle_ = false;
    if (!error && isOpen()) {
        buffer_.commit(size);
        readHeader();
    }
}

void Connection::readHeader() {
    deadline_ = std::chrono::steady_clock::now() + shared_.options.requestTimeout;
    stream_.tcp().expires_at(deadline_);
    http::async_read_header(stream_, buffer_, *parser_,
                            beast::bind_front_handler(&Connection::onHeader, shared_from_this()));
}

void Connection::onHeader(Error error, std::size_t) {
    if (error) {
        return refuse(error);
    }
    const auto& header = parser_->get();
    isForEverybody_ = isForEverybody(header);
    if (auto refusal = shared_.dispatcher.refuse(header, peer_, caller_ = {})) {
        return refuse(std::move(*refusal));
    }
    if (hasUnknownEnd(*parser_)) {
        return refuse(Error(http::error::bad_transfer_encoding));
    }
    if (const auto length = parser_->content_length();
        length && *length > shared_.options.maxBody) {
        return refuse(Error(http::error::body_limit));
    }
    parser_->body_limit(shared_.options.maxBody);
    if (header.version() >= 11 && beast::iequals(header[http::field::expect], "100-continue")) {
        return asio::async_write(
            stream_, asio::buffer(kContinue),
            beast::bind_front_handler(&Connection::readBody, shared_from_this()));
    }
    readBody({}, 0);
}

void Connection::readBody(Error error, std::size_t) {
    if (error) {
        return;
    }
    parser_->eager(true);
    onPart({}, 0);
}

// The limit of a body does not include the headers of its chunks. The time-out of the stream only
// ends a read that is pending, so the deadline is also checked between reads. Beast's functions
// make any number of reads until they have a whole chunk, so they are not used here.
void Connection::onPart(Error error, std::size_t size) {
    buffer_.commit(size);
    if (error == asio::error::eof) {
        error = {};
        parser_->put_eof(error);
    }
    if (!error && !parser_->is_done() && buffer_.size() > 0) {
        buffer_.consume(parser_->put(buffer_.data(), error));
    }
    if (error == http::error::need_more) {
        error = {};
    }
    if (error || parser_->is_done()) {
        return onRequest(error);
    }
    if (std::chrono::steady_clock::now() >= deadline_) {
        return shared_.dispatcher.counts().countDrop(Drop::Timeout);
    }
    const std::size_t next = beast::read_size(buffer_, kMaxBuffer);
    if (next == 0) {
        return onRequest(http::error::buffer_overflow);
    }
    stream_.async_read_some(buffer_.prepare(next),
                            beast::bind_front_handler(&Connection::onPart, shared_from_this()));
}

void Connection::onRequest(Error error) {
    if (error) {
        return refuse(error);
    }
    if (generation_ != shared_.generation) {
        // The token may have been withdrawn since the header was checked.
        if (auto refusal = shared_.dispatcher.refuse(parser_->get(), peer_, caller_ = {})) {
            return refuse(std::move(*refusal));
        }
    }
    shared_.dispatcher.react(
        parser_->get(), caller_,
        beast::bind_front_handler(&Connection::onReaction, shared_from_this()));
}

void Connection::onReaction(Reaction reaction) {
    if (reaction.watch && generation_ != shared_.generation) {
        return;  // the certificate may no longer be valid
    }
    record(parser_->get(), reaction.response, reaction.remark, !reaction.rest);
    parser_.reset();
    shared_.wakeWatchers();
    if (!isOpen()) {
        return;
    }
    if (reaction.watch) {
        return beginWatch(*reaction.response, *reaction.watch);
    }
    if (reaction.delay.count() == 0) {
        return follow(std::move(reaction));
    }
    stream_.tcp().expires_never();
    delay_.expires_after(reaction.delay);
    delay_.async_wait([self = shared_from_this(), reaction = std::move(reaction)](Error) mutable {
        if (self->isOpen()) {
            self->follow(std::move(reaction));
        }
    });
}

void Connection::follow(Reaction reaction) {
    if (!reaction.response) {
        reset();
    } else if (reaction.rest) {
        beginList(std::move(*reaction.response), *reaction.rest);
    } else {
        respond(std::move(*reaction.response));
    }
}

bool Connection::isOpen() const {
    return position_ != shared_.connections.end();
}

void Connection::reset() {
    Error error;
    stream_.tcp().socket().set_option(asio::socket_base::linger(true, 0), error);
    close();
}

void Connection::record(const Request& request, const std::optional<Response>& response,
                        std::string_view remark, bool isWhole) const {
    if (!shared_.log) {
        return;
    }
    std::string line;
    if (!request.target().empty()) {
        line = std::string(request.method_string()) + ' ' + std::string(request.target()) +
               " HTTP/" + std::to_string(request.version() / 10) + '.' +
               std::to_string(request.version() % 10);
    }
    const std::string address =
        caller_.address.empty() ? peer_.address.to_string() : caller_.address;
    if (!shared_.log->write(address, caller_.name, line, response ? response->result_int() : 0,
                            response && isWhole ? response->body().size() : 0, remark)) {
        shared_.dispatcher.counts().countLostLine(LostIn::Requests);
    }
}

void Connection::refuse(Error error) {
    static const Error kHttpError = http::error::bad_method;
    if (hasFailed(error) &&
        (error.category() != kHttpError.category() || error == http::error::end_of_stream)) {
        return;  // the client is gone or too slow, or the registry has closed the connection
    }
    auto status = http::status::bad_request;
    if (error == http::error::body_limit) {
        status = http::status::payload_too_large;
    } else if (error == http::error::header_limit) {
        status = http::status::request_header_fields_too_large;
    }
    Response response = failure(status, error.message());
    response.keep_alive(false);
    shared_.dispatcher.counts().countRequest(http::verb::unknown, response.result_int(), {});
    caller_ = {};
    record({}, response, {});
    respond(std::move(response));
}

/// Refuses a request by its header alone. The rest of the request is not read.
void Connection::refuse(Response response) {
    response.keep_alive(parser_->is_done() && !hasUnknownEnd(*parser_) &&
                        parser_->get().keep_alive());
    record(parser_->get(), response, {});
    parser_.reset();
    respond(std::move(response));
}

void Connection::respond(Response response) {
    response_ = std::move(response);
    response_.keep_alive(response_.keep_alive() && generation_ == shared_.generation);
    stream_.tcp().expires_after(shared_.options.writeTimeout);
    http::async_write(stream_, response_,
                      beast::bind_front_handler(&Connection::onAnswered, shared_from_this()));
}

void Connection::onAnswered(Error error, std::size_t) {
    if (hasFailed(error)) {
        return;
    }
    // A refusal, or a response that needs no token, does not move the connection to the end of the
    // list. Otherwise a client without a token could end the idle connections of other clients.
    if (auto& connections = shared_.connections;
        !isForEverybody_ && !isRefusal(response_.result())) {
        connections.splice(connections.end(), connections, position_);
    }
    if (response_.keep_alive() && generation_ == shared_.generation) {
        return awaitRequest();
    }
    farewell_ = std::chrono::steady_clock::now() + shared_.options.farewellTimeout;
    stream_.tcp().expires_at(farewell_);
    if (stream_.tls() == nullptr) {
        return sendEnd();
    }
    stream_.shutdown([self = shared_from_this()](Error) {
        if (self->isOpen()) {
            self->sendEnd();
        }
    });
}

void Connection::sendEnd() {
    Error error;
    stream_.tcp().socket().shutdown(asio::ip::tcp::socket::shutdown_send, error);
    discardInput(error, 0);
}

// Closing while the client still sends would reset the connection, and the client could lose the
// answer. The stream's time-out only ends a pending read, so the clock is checked, too, for a
// client that keeps sending.
void Connection::discardInput(Error error, std::size_t) {
    if (!error && std::chrono::steady_clock::now() < farewell_) {
        buffer_.clear();
        stream_.tcp().async_read_some(
            buffer_.prepare(kFirstRead),
            beast::bind_front_handler(&Connection::discardInput, shared_from_this()));
    }
}

// The length of the list is unknown: it is sent in chunks, or ends with the connection. If the list
// cannot be completed, the connection is reset, so that the kernel keeps no unsent bytes.
void Connection::beginList(Response response, const EntryWriter& rest) {
    Error error;
    auto& socket = stream_.tcp().socket();
    socket.set_option(asio::socket_base::linger(true, 0), error);  // until it is sent
    list_ = rest;
    const std::string first = std::exchange(response.body(), {});
    response_ = std::move(response);
    const bool isChunked = response_.version() >= 11;
    response_.chunked(isChunked);
    response_.keep_alive(isChunked && response_.keep_alive() && generation_ == shared_.generation);
    std::ostringstream header;
    header << response_.base() << framed(first, false);
    sendList(header.str());
}

/// A piece of a list, as a chunk if the response is chunked.
std::string Connection::framed(const std::string& piece, bool isLast) const {
    if (!response_.chunked()) {
        return piece;
    }
    std::ostringstream chunk;
    if (!piece.empty()) {
        chunk << std::hex << piece.size() << "\r\n" << piece << "\r\n";
    }
    chunk << (isLast ? "0\r\n\r\n" : "");
    return chunk.str();
}

void Connection::sendList(std::string piece) {
    piece_ = std::make_shared<const std::string>(std::move(piece));
    stream_.tcp().expires_after(shared_.options.writeTimeout);
    asio::async_write(stream_, asio::buffer(*piece_),
                      beast::bind_front_handler(&Connection::onListSent, shared_from_this()));
}

void Connection::onListSent(Error error, std::size_t) {
    if (hasFailed(error)) {
        return;
    }
    if (list_->isDone()) {
        list_.reset();
        piece_.reset();
        stream_.tcp().socket().set_option(asio::socket_base::linger(false, 0), error);
        return onAnswered({}, 0);
    }
    const auto piece = list_->next(shared_.dispatcher.store());
    piece ? sendList(framed(*piece, list_->isDone())) : reset();
}

// Nothing more is read from the connection: a lost client is noticed when the next heartbeat is
// sent. The stream has no regular end: the connection is reset, so that the kernel keeps no unsent
// bytes.
void Connection::beginWatch(const Response& response, const Watch& watch) {
    buffer_.consume(buffer_.size());
    buffer_.shrink_to_fit();
    Error error;
    stream_.tcp().socket().set_option(asio::socket_base::linger(true, 0), error);
    watch_ = watch;
    shared_.dispatcher.counts().addWatcher();
    std::ostringstream header;
    header << response.base() << kRetry << *shared_.dispatcher.news(*watch_);
    send(std::make_shared<const std::string>(header.str()));
}

void Connection::sendNews() {
    auto piece = shared_.dispatcher.news(*watch_);
    shared_.wakeWatchers();  // entries may have expired
    piece->empty() ? awaitNews() : send(std::move(piece));
}

void Connection::send(RecentPieces::Piece piece) {
    piece_ = std::move(piece);
    stream_.tcp().expires_after(shared_.options.writeTimeout);
    asio::async_write(stream_, asio::buffer(*piece_),
                      beast::bind_front_handler(&Connection::onNewsSent, shared_from_this()));
}

void Connection::onNewsSent(Error error, std::size_t size) {
    if (hasFailed(error)) {
        return;
    }
    stream_.tcp().expires_never();
    shared_.connections.splice(shared_.connections.end(), shared_.connections, position_);
    if (size >= Watch::kPiece) {
        return sendNews();
    }
    piece_.reset();
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
