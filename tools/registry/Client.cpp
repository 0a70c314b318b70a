// A blocking client. Each step but the name lookup has a time limit.
// Runs on the caller's thread only; there is no lock.

#include "Client.h"

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <chrono>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "FileContent.h"
#include "Tls.h"

namespace orvx::registry {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;

namespace {

/// 1,000 entries whose bodies have the default limit, or one with the largest, in JSON.
constexpr std::uint64_t kLargestAnswer = std::uint64_t{2} << 30;
/// How much of a long answer must arrive within the timeout.
constexpr std::uint64_t kProgress = 65'536;
/// A registry's events are much shorter.
constexpr std::size_t kLongestEvent = 65'536;

/// Calls `take` with each complete event, and removes it from the text. Only the end of the text,
/// from `added` on, is new. Throws a std::runtime_error if the last event is too long.
void takeEvents(std::string& text, std::size_t added, std::string& lastId,
                const std::function<void(std::string_view, std::string_view)>& take) {
    std::size_t begin = 0;
    for (auto end = text.find("\n\n", added - std::min<std::size_t>(added, 1));
         end != std::string::npos; end = text.find("\n\n", begin)) {
        std::string name;
        std::string data;
        std::string_view event = std::string_view(text).substr(begin, end - begin);
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
        begin = end + 2;
    }
    text.erase(0, begin);
    if (text.size() > kLongestEvent) {
        throw std::runtime_error("the registry sends an event of more than 64 KiB");
    }
}

std::string readToken(const std::string& file) {
    std::string token = contentOf("token", file, FileKind::Any);
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    if (token.empty()) {
        throw FileError("token " + file + ": it is empty");
    }
    if (token.find_first_of("\r\n") != std::string::npos) {
        throw FileError("token " + file + ": it has more than one line");
    }
    return token;
}

}  // namespace

void readTokenOfPipe(ClientOptions& options) {
    std::error_code ignored;
    if (!options.tokenFile.empty() &&
        !std::filesystem::is_regular_file(options.tokenFile, ignored)) {
        options.token = readToken(options.tokenFile);
        options.tokenFile.clear();
    }
}

Client::Client(const ClientOptions& options) : timeout_(options.timeout) {
    const auto url = parseUrl(options.url);
    if (!url) {
        throw std::runtime_error("the registry must be a url such as http://127.0.0.1:8500");
    }
    url_ = *url;
    if (url_.isTls) {
        tls_ = makeClientTlsContext({options.own.certificate, options.own.key, options.authority});
    }
    const std::string token =
        options.tokenFile.empty() ? options.token : readToken(options.tokenFile);
    authorization_ = token.empty() ? "" : "Bearer " + token;
}

template <typename Start>
Client::Error Client::await(Start&& start) {
    return awaitUntil(std::chrono::steady_clock::now() + timeout_, std::forward<Start>(start));
}

template <typename Start>
Client::Error Client::awaitUntil(std::chrono::steady_clock::time_point deadline, Start&& start) {
    Error result;
    stream_->tcp().expires_at(deadline);
    start([&result](Error error, auto&&...) { result = error; });
    context_.restart();
    context_.run();
    return result;
}

void Client::require(Error error) const {
    if (error) {
        throw std::runtime_error("registry " + url_.host + " port " + url_.port + ": " +
                                 error.message());
    }
}

void Client::connect() {
    Error error;
    const auto endpoints = tcp::resolver(context_).resolve(url_.host, url_.port, error);
    require(error);
    buffer_.clear();
    stream_.emplace(tcp::socket(context_), tls_.get());
    require(await([&](auto handler) { stream_->tcp().async_connect(endpoints, handler); }));
    if (tls_) {
        shakeHands();
    }
}

void Client::shakeHands() {
    expectHost(*stream_->tls(), url_.host);
    require(await(
        [this](auto handler) { stream_->handshake(asio::ssl::stream_base::client, handler); }));
}

Client::Error Client::send(http::verb method, const std::string& target,
                           const std::string& lastId) {
    if (!stream_) {
        connect();
    }
    http::request<http::empty_body> request(method, target, 11);
    request.set(http::field::host, url_.authority);
    request.set(http::field::accept, "application/json");
    if (!authorization_.empty()) {
        request.set(http::field::authorization, authorization_);
    }
    if (!lastId.empty()) {
        request.set("Last-Event-ID", lastId);
    }
    return await([&](auto handler) { http::async_write(*stream_, request, handler); });
}

// Beast would reserve memory for the whole body before it compares the length with its limit.
Client::Error Client::readHeader(Parser& parser) {
    const Error error =
        await([&](auto handler) { http::async_read_header(*stream_, buffer_, parser, handler); });
    const bool isTooLong = !error && parser.content_length().value_or(0) > kLargestAnswer;
    return isTooLong ? http::error::body_limit : error;
}

// The timer of the stream does not fire while bytes are always there, so the time is also compared
// here. A server that sends quickly and without end is ended by the number of bytes.
Client::Error Client::readRest(Parser& parser) {
    auto deadline = std::chrono::steady_clock::now() + timeout_;
    std::uint64_t total = 0;
    std::uint64_t sinceDeadline = 0;
    parser.eager(true);
    while (!parser.is_done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return beast::error::timeout;
        }
        std::size_t bytes = 0;
        const Error error = awaitUntil(deadline, [&](auto handler) {
            http::async_read_some(*stream_, buffer_, parser,
                                  [&bytes, handler](Error failure, std::size_t count) mutable {
                                      bytes = count;
                                      handler(failure);
                                  });
        });
        if (error) {
            return error;
        }
        total += bytes;
        sinceDeadline += bytes;
        if (total > kLargestAnswer) {
            return http::error::body_limit;
        }
        if (sinceDeadline >= kProgress) {
            sinceDeadline = 0;
            deadline = std::chrono::steady_clock::now() + timeout_;
        }
    }
    return {};
}

// The registry closes a connection that is idle for too long. A request that changes nothing is
// then sent again.
Response Client::ask(http::verb method, const std::string& target) {
    const bool isKept = stream_.has_value();
    std::optional<Parser> parser;
    const auto exchange = [&] {
        parser.emplace();
        parser->body_limit(kLargestAnswer);
        Error error = send(method, target);
        error = error ? error : readHeader(*parser);
        return error ? error : readRest(*parser);
    };
    Error error = exchange();
    if (error && error != beast::error::timeout && isKept && method == http::verb::get &&
        !parser->got_some()) {
        stream_.reset();
        error = exchange();
    }
    require(error);
    if (!parser->get().keep_alive()) {
        stream_.reset();
    }
    return parser->release();
}

std::optional<Response> Client::watch(
    const std::string& target, std::string& lastId,
    const std::function<void(std::string_view, std::string_view)>& take) {
    stream_.reset();
    require(send(http::verb::get, target, lastId));
    Parser parser;
    parser.body_limit(std::numeric_limits<std::uint64_t>::max());
    require(readHeader(parser));
    Error error;
    if (parser.get().result() != http::status::ok) {
        require(readRest(parser));
        stream_.reset();
        return parser.release();
    }
    std::string text;
    bool hasEvents = false;
    const auto takeEvent = [&](std::string_view name, std::string_view data) {
        hasEvents = true;
        take(name, data);
    };
    while (!error && !parser.is_done()) {
        error =
            await([&](auto handler) { http::async_read_some(*stream_, buffer_, parser, handler); });
        const std::size_t added = text.size();
        text += std::exchange(parser.get().body(), {});
        takeEvents(text, added, lastId, takeEvent);
    }
    stream_.reset();
    if (!hasEvents) {
        require(error);
        throw std::runtime_error("the answer of the registry is not a stream of changes");
    }
    return std::nullopt;
}

}  // namespace orvx::registry
