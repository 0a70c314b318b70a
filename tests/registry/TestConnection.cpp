// Reads responses with Beast's parser.
// Runs on the thread that owns the connection.
// There is no lock.

#include "TestConnection.h"

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/parser.hpp>
#include <stdexcept>

namespace orvx::registry {

namespace http = boost::beast::http;

TestConnection::Response TestConnection::receive(bool toHead) {
    http::response_parser<http::string_body> parser;
    parser.eager(true);
    parser.skip(toHead);
    parser.body_limit(64'000'000);
    while (!parser.is_done()) {
        boost::system::error_code error;
        unread_.erase(0, parser.put(boost::asio::buffer(unread_), error));
        if (error && error != http::error::need_more) {
            throw std::runtime_error("bad answer: " + error.message());
        }
        if (!parser.is_done() && !readMore()) {
            throw std::runtime_error("the connection ended within an answer");
        }
    }
    return parser.release();
}

TestConnection::Response TestConnection::ask(const std::string& request) {
    send(request);
    return receive(request.rfind("HEAD ", 0) == 0);
}

std::string TestConnection::readUntil(const std::string& text) {
    std::size_t at = 0;
    while ((at = unread_.find(text)) == std::string::npos) {
        if (!readMore()) {
            throw std::runtime_error("the connection ended without: " + text);
        }
    }
    std::string bytes = unread_.substr(0, at + text.size());
    unread_.erase(0, bytes.size());
    return bytes;
}

}  // namespace orvx::registry
