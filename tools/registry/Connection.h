#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Dispatcher.h"
#include "RegistryServer.h"
#include "RequestHandler.h"
#include "RequestLog.h"
#include "Stream.h"

namespace orvx::registry {

/// One accepted connection. It reads and answers one request after the other. After a request to
/// watch the entries it only sends. It lives as long as an operation is pending. It needs memory
/// for one request and its answer, or for one piece of the list or of the stream.
///
/// Thread-safety: the thread that runs the socket's io_context only.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    /// The state that all connections of a server share. It must outlive them.
    struct Shared {
        const RegistryOptions options;
        Dispatcher dispatcher;
        std::optional<RequestLog> log;
        /// For new connections; null: they do not use TLS.
        std::unique_ptr<boost::asio::ssl::context> tls;
        /// The open connections. The one that was accepted or served longest ago is the first.
        std::list<Connection*> connections;
        /// The connections that watch the entries and have nothing to send.
        std::list<Connection*> idleWatchers{};
        std::uint64_t announcedRevision = 0;
        /// Counts how often the files were read again. A connection of an earlier generation ends
        /// soon.
        std::uint64_t generation = 0;

        /// Called when the last connection has closed, if set.
        std::function<void()> onLastClosed{};

        /// Does nothing if no connection is open.
        void closeOldest();

        /// Called after the files were read again, and when the server stops. Connections that
        /// watch or wait for a request end at once, all others after their answer.
        void endOldOnes();

        /// Called after a request, after changes at etcd, and after a watcher has looked for
        /// expired entries. Wakes the idle watchers if an entry was put or removed. Checks alone
        /// wake none: a watcher sends them when its own timer expires.
        void wakeWatchers();
    };

    Connection(boost::asio::ip::tcp::socket socket, const boost::asio::ip::address& address,
               Shared& shared);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Performs the TLS handshake, if there is TLS, and answers requests. To be called once.
    void begin();
    void close();

  private:
    using Error = boost::beast::error_code;

    bool isOpen() const;
    /// Returns whether a step has failed. Counts a step that took too long.
    bool hasFailed(Error error) const;
    void onHandshake(Error error);
    void awaitRequest();
    void onFirstBytes(Error error, std::size_t size);
    void readHeader();
    void onHeader(Error error, std::size_t);
    void readBody(Error error, std::size_t);
    void onPart(Error error, std::size_t size);
    void onRequest(Error error);
    void onReaction(Reaction reaction);
    void refuse(Error error);
    void refuse(Response response);
    void follow(Reaction reaction);
    void reset();
    void respond(Response response);
    void record(const Request& request, const std::optional<Response>& response,
                std::string_view remark, bool isWhole = true) const;
    void onAnswered(Error error, std::size_t);
    void sendEnd();
    void discardInput(Error error, std::size_t);
    void beginList(Response response, const EntryWriter& rest);
    std::string framed(const std::string& piece, bool isLast) const;
    void sendList(std::string piece);
    void onListSent(Error error, std::size_t);
    void beginWatch(const Response& response, const Watch& watch);
    void sendNews();
    void send(RecentPieces::Piece piece);
    void onNewsSent(Error error, std::size_t size);
    void awaitNews();

    Shared& shared_;
    std::list<Connection*>::iterator position_;
    Stream stream_;
    Peer peer_;
    Caller caller_;                // of the request
    bool isForEverybody_ = false;  // the request
    const std::uint64_t generation_;
    bool isIdle_ = false;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    Response response_;
    std::optional<EntryWriter> list_;
    std::optional<Watch> watch_;
    RecentPieces::Piece piece_;  // the piece that is being sent
    boost::asio::steady_timer delay_;
    std::chrono::steady_clock::time_point deadline_;  // of the request
    std::chrono::steady_clock::time_point farewell_;
};

}  // namespace orvx::registry
