// A blocking client. Each step has a time limit; an exception says what failed.
// Entered by the thread that asks; there is no other one and no lock.

#include "Client.h"

#include <arpa/inet.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

#include "FileError.h"
#include "Tls.h"

namespace orvx::registry {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;

namespace {

constexpr std::chrono::seconds kTimeout{10};

/// Calls `take` with each whole event and takes it out of the text.
void takeEvents(std::string& text, std::string& lastId,
                const std::function<void(std::string_view, std::string_view)>& take) {
    for (auto end = text.find("\n\n"); end != std::string::npos; end = text.find("\n\n")) {
        std::string name;
        std::string data;
        std::string_view event = std::string_view(text).substr(0, end);
        while (!event.empty()) {
            const std::string_view line = event.substr(0, event.find('\n'));
            event.remove_prefix(std::min(line.size() + 1, event.size()));
            const auto colon = line.find(": ");
            const std::string_view field = line.substr(0, colon);
            const std::string value(colon == std::string_view::npos ? "" : line.substr(colon + 2));
            if (field == "event") {
                name = value;
            } else if (field == "data") {
                data = value;
            } else if (field == "id") {
                lastId = value;
            }
        }
        if (!name.empty()) {
            take(name, data);
        }
        text.erase(0, end + 2);
    }
}

}  // namespace

Client::Client(const ClientOptions& options) {
    readUrl(options.url);
    if (options.url.substr(0, 5) == "https") {
        makeTls(options);
    }
    if (!options.tokenFile.empty()) {
        std::string token = contentOf("token", options.tokenFile);
        token.erase(token.find_last_not_of(" \t\r\n") + 1);
        if (token.find_first_of("\r\n") != std::string::npos) {
            throw FileError("token " + options.tokenFile + ": it has more than one line");
        }
        authorization_ = "Bearer " + token;
    }
}

void Client::readUrl(const std::string& url) {
    const auto scheme = url.find("://");
    std::string rest = scheme == std::string::npos ? "" : url.substr(scheme + 3);
    if (!rest.empty() && rest.back() == '/') {
        rest.pop_back();
    }
    authority_ = rest;
    const auto bracket = rest.find(']');
    const auto colon = rest.find(':', bracket == std::string::npos ? 0 : bracket);
    host_ = rest.substr(0, colon);
    port_ = colon != std::string::npos         ? rest.substr(colon + 1)
            : url.substr(0, scheme) == "https" ? "443"
                                               : "80";
    if (!host_.empty() && host_.front() == '[' && host_.back() == ']') {
        host_ = host_.substr(1, host_.size() - 2);
    }
    if ((url.substr(0, scheme) != "http" && url.substr(0, scheme) != "https") || host_.empty() ||
        host_.find_first_of("/@?#[] \r\n") != std::string::npos || port_.empty() ||
        port_.find_first_not_of("0123456789") != std::string::npos) {
        throw std::runtime_error("the registry must be a url such as http://127.0.0.1:8500");
    }
}

void Client::makeTls(const ClientOptions& options) {
    tls_ = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_client);
    SSL_CTX* const native = tls_->native_handle();
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    SSL_CTX_set_verify(native, SSL_VERIFY_PEER, nullptr);
    Error error;
    if (options.authority.empty()) {
        tls_->set_default_verify_paths(error);
    } else {
        const std::string pem = contentOf("TLS", options.authority);
        tls_->add_certificate_authority(asio::buffer(pem.data(), pem.size()), error);
    }
    if (error) {
        throw FileError("TLS " + options.authority + ": it holds no certificate in PEM");
    }
    if (!options.own.certificate.empty()) {
        loadOwn(*tls_, options.own);
    }
}

template <typename Start>
Client::Error Client::await(Start&& start) {
    Error result;
    stream_->tcp().expires_after(kTimeout);
    start([&result](Error error, auto&&...) { result = error; });
    context_.restart();
    context_.run();
    return result;
}

void Client::require(Error error) const {
    if (error) {
        throw std::runtime_error("registry " + host_ + " port " + port_ + ": " + error.message());
    }
}

void Client::connect() {
    Error error;
    const auto endpoints = tcp::resolver(context_).resolve(host_, port_, error);
    require(error);
    buffer_.clear();
    stream_.emplace(tcp::socket(context_), tls_.get());
    require(await([&](auto handler) { stream_->tcp().async_connect(endpoints, handler); }));
    if (tls_) {
        shakeHands();
    }
}

void Client::shakeHands() {
    SSL* const ssl = stream_->tls();
    in6_addr ignored;
    if (::inet_pton(AF_INET, host_.c_str(), &ignored) == 1 ||
        ::inet_pton(AF_INET6, host_.c_str(), &ignored) == 1) {
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host_.c_str());
    } else {
        SSL_set1_host(ssl, host_.c_str());
        SSL_set_tlsext_host_name(ssl, host_.c_str());
    }
    require(await(
        [this](auto handler) { stream_->handshake(asio::ssl::stream_base::client, handler); }));
}

void Client::send(http::verb method, const std::string& target, const std::string& lastId) {
    if (!stream_) {
        connect();
    }
    http::request<http::empty_body> request(method, target, 11);
    request.set(http::field::host, authority_);
    request.set(http::field::accept, "application/json");
    if (!authorization_.empty()) {
        request.set(http::field::authorization, authorization_);
    }
    if (!lastId.empty()) {
        request.set("Last-Event-ID", lastId);
    }
    require(await([&](auto handler) { http::async_write(*stream_, request, handler); }));
}

Response Client::ask(http::verb method, const std::string& target) {
    send(method, target);
    http::response_parser<http::string_body> parser;
    parser.body_limit(std::numeric_limits<std::uint64_t>::max());
    require(await([&](auto handler) { http::async_read(*stream_, buffer_, parser, handler); }));
    if (!parser.get().keep_alive()) {
        stream_.reset();
    }
    return parser.release();
}

std::optional<Response> Client::watch(
    std::string& lastId, const std::function<void(std::string_view, std::string_view)>& take) {
    stream_.reset();
    send(http::verb::get, "/-/watch", lastId);
    http::response_parser<http::string_body> parser;
    parser.body_limit(std::numeric_limits<std::uint64_t>::max());
    require(
        await([&](auto handler) { http::async_read_header(*stream_, buffer_, parser, handler); }));
    Error error;
    if (parser.get().result() != http::status::ok) {
        require(await([&](auto handler) { http::async_read(*stream_, buffer_, parser, handler); }));
        stream_.reset();
        return parser.release();
    }
    std::string text;
    while (!error) {
        error =
            await([&](auto handler) { http::async_read_some(*stream_, buffer_, parser, handler); });
        text += std::exchange(parser.get().body(), {});
        takeEvents(text, lastId, take);
    }
    stream_.reset();
    return std::nullopt;
}

}  // namespace orvx::registry
