#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Dispatcher.h"
#include "RegistryServer.h"
#include "RequestHandler.h"
#include "RequestLog.h"

namespace orvx::registry {

/// One accepted connection: reads a request, answers it, and again, until a request is to watch the
/// entries; from then on it only sends. It lives as long as something is under way, and needs
/// memory for one request and its answer only, or for one piece of the stream.
///
/// Thread-safety: the thread that runs the socket's io_context only.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    /// What all connections of a server work on. Outlives them.
    struct Shared {
        const RegistryOptions options;
        Dispatcher dispatcher;
        std::optional<RequestLog> log;
        /// Those that are open, the one that was accepted or answered longest ago first.
        std::list<Connection*> connections;
        /// Those that watch and have nothing to send.
        std::list<Connection*> idleWatchers{};
        std::uint64_t announcedRevision = 0;

        /// Does nothing when none is open.
        void closeOldest();

        /// After a request: what it has changed is sent to those that watch. Checks wait until the
        /// watcher looks by itself.
        void wakeWatchers();
    };

    Connection(boost::asio::ip::tcp::socket socket, Shared& shared);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void awaitRequest();
    void close();

  private:
    using Error = boost::beast::error_code;

    bool isOpen() const;
    void onFirstBytes(Error error, std::size_t size);
    void readHeader();
    void onHeader(Error error, std::size_t);
    void readBody(Error error, std::size_t);
    void onRequest(Error error, std::size_t);
    void refuse(Error error);
    void reset();
    void respond(Response response);
    void record(const Request& request, const std::optional<Response>& response,
                std::string_view remark) const;
    void onAnswered(Error error, std::size_t);
    void discardInput(Error error, std::size_t);
    void beginWatch(const Response& response, const Watch& watch);
    void sendNews();
    void send(std::string piece);
    void onNewsSent(Error error, std::size_t size);
    void awaitNews();

    Shared& shared_;
    std::list<Connection*>::iterator position_;
    boost::beast::tcp_stream stream_;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    Response response_;
    std::optional<Watch> watch_;
    std::string piece_;
    boost::asio::steady_timer delay_;
    std::string address_;
    std::chrono::steady_clock::time_point farewell_;
};

}  // namespace orvx::registry
