#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/verb.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "RequestHandler.h"
#include "Stream.h"
#include "TlsFiles.h"
#include "Url.h"

namespace orvx::registry {

/// The address of a registry, and the credentials and files of TLS for it.
struct ClientOptions {
    std::string url = "http://127.0.0.1:8500";  ///< or https://
    std::string token{};                        ///< if there is no file; empty: none is sent
    std::string tokenFile{};                    ///< with the token
    std::string authority{};                    ///< file; empty: the system's authorities
    TlsFiles own{};                             ///< the client's certificate and its key
    std::chrono::milliseconds timeout{10'000};  ///< of each step
};

/// Replaces the token's file by its content if it is not a regular file: a pipe can be read only
/// once, and opening a FIFO may wait. Throws a FileError.
void readTokenOfPipe(ClientOptions& options);

/// Sends requests to a registry, one after the other over one connection. All functions block. They
/// throw a std::runtime_error that says what failed, also when a step takes longer than the
/// timeout. The steps are: connect, the handshake, send the request, read the header of the answer,
/// and read the rest, 64 KiB of a longer one, or one piece of a stream. The look-up of the
/// registry's name has no limit of its own. An answer of more than 2 GiB, or an event of more than
/// 64 KiB, is a failure, too.
///
/// Thread-safety: none.
class Client {
  public:
    /// Throws a FileError, or a std::runtime_error for an invalid URL.
    explicit Client(const ClientOptions& options);

    /// Sends a GET again, over a new connection, if a kept one has ended without an answer.
    Response ask(boost::beast::http::verb method, const std::string& target);

    /// Follows the stream of changes at `target` until the connection ends. `lastId`: the id of the
    /// last known event; updated with each event. `take` is called with the name and the data of
    /// each event. Returns the registry's answer if its status is not 200. Throws if the connection
    /// ends before the first event.
    std::optional<Response> watch(
        const std::string& target, std::string& lastId,
        const std::function<void(std::string_view, std::string_view)>& take);

  private:
    using Error = boost::beast::error_code;
    using Parser = boost::beast::http::response_parser<boost::beast::http::string_body>;

    void connect();
    void shakeHands();
    Error send(boost::beast::http::verb method, const std::string& target,
               const std::string& lastId = {});
    /// Starts an asynchronous operation, waits until it calls the handler, and returns its error.
    template <typename Start>
    Error await(Start&& start);
    template <typename Start>
    Error awaitUntil(std::chrono::steady_clock::time_point deadline, Start&& start);
    Error readHeader(Parser& parser);
    /// Reads the rest of an answer.
    Error readRest(Parser& parser);
    void require(Error error) const;

    const std::chrono::milliseconds timeout_;
    Url url_{};
    std::string authorization_{};
    boost::asio::io_context context_;
    std::unique_ptr<boost::asio::ssl::context> tls_;
    std::optional<Stream> stream_;
    boost::beast::flat_buffer buffer_;
};

}  // namespace orvx::registry
