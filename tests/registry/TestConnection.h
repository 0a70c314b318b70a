#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string>

namespace orvx::registry {

/// A connection to a registry, in plain text or over TLS. Each wait throws a std::runtime_error
/// after thirty seconds.
///
/// Thread-safety: none.
class TestConnection {
  public:
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    virtual ~TestConnection() = default;

    virtual void send(const std::string& bytes) = 0;
    /// Reads the next response. The response to HEAD has no body.
    Response receive(bool toHead = false);
    /// send() and receive().
    Response ask(const std::string& request);
    /// Reads all bytes up to the end of `text`.
    std::string readUntil(const std::string& text);

  protected:
    TestConnection() = default;
    TestConnection(TestConnection&&) noexcept = default;

    /// Appends to `unread_`. False at the end of the stream.
    virtual bool readMore() = 0;

    std::string unread_;
};

}  // namespace orvx::registry
