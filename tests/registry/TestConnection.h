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
    /// The next response. One to HEAD has no body, whatever its header says.
    Response receive(bool toHead = false);
    /// send() and receive().
    Response ask(const std::string& request);
    /// All bytes up to the end of that text.
    std::string readUntil(const std::string& text);

  protected:
    TestConnection() = default;
    TestConnection(TestConnection&&) noexcept = default;

    /// Appends to `unread_`. False at the end of the stream.
    virtual bool readMore() = 0;

    std::string unread_;
};

}  // namespace orvx::registry
