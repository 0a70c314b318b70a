#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/verb.hpp>
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

/// How a registry is reached.
struct ClientOptions {
    std::string url = "http://127.0.0.1:8500";  ///< or https://
    std::string tokenFile{};                    ///< with the token; empty: none is shown
    std::string authority{};                    ///< file; empty: the system's authorities
    TlsFiles own{};                             ///< the certificate that is shown, and its key
};

/// Asks a registry, one request after the other over one connection. Everything blocks, and throws
/// a std::runtime_error that says what failed when ten seconds bring nothing.
///
/// Thread-safety: none.
class Client {
  public:
    /// Throws a FileError, or a std::runtime_error for a url that is none.
    explicit Client(const ClientOptions& options);

    Response ask(boost::beast::http::verb method, const std::string& target);

    /// Follows the stream of changes at `target` until the connection ends. `lastId`: of the last
    /// event that is known; is kept up to date. `take` is called with name and data of each event.
    /// What the registry answers if it is no stream is returned.
    std::optional<Response> watch(
        const std::string& target, std::string& lastId,
        const std::function<void(std::string_view, std::string_view)>& take);

  private:
    using Error = boost::beast::error_code;

    void connect();
    void shakeHands();
    void send(boost::beast::http::verb method, const std::string& target,
              const std::string& lastId = {});
    /// Starts something that calls the handler it is given when it is done, and waits for it.
    template <typename Start>
    Error await(Start&& start);
    void require(Error error) const;

    Url url_{};
    std::string authorization_{};
    boost::asio::io_context context_;
    std::unique_ptr<boost::asio::ssl::context> tls_;
    std::optional<Stream> stream_;
    boost::beast::flat_buffer buffer_;
};

}  // namespace orvx::registry
