#pragma once

#include <orvx/communication/ClientStatistics.h>
#include <orvx/communication/HealthCheck.h>
#include <orvx/communication/HttpConfig.h>
#include <orvx/communication/IClientHttpSession.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <utility>

namespace orvx::communication {

using Clock = std::chrono::steady_clock;

/// 24 days, the longest time-out that cannot overflow the clock.
constexpr std::chrono::milliseconds kLongestTimeout(std::numeric_limits<int>::max());

/// The location of a server or a proxy.
struct Origin {
    std::string host;  ///< A name or an address, without brackets.
    std::uint16_t port = 0;
    std::string authority;  ///< Host and port as used in requests.
};

/// The settings that all requests of a session share. Constant once the session is made.
struct EndpointSettings {
    Origin origin;
    Origin proxy;  ///< Without a host there is no proxy.
    HttpConfig config;
    std::shared_ptr<HealthCheck> healthCheck;
    std::shared_ptr<ClientStatistics> statistics;

    /// The limit for the time to connect, which cannot overflow the clock.
    std::chrono::milliseconds connectTimeout() const {
        return std::min(config.connectTimeout, kLongestTimeout);
    }
    /// The server, or the proxy if there is one.
    const Origin& nextHop() const { return proxy.host.empty() ? origin : proxy; }
};

/// An answer while it is received.
struct Answer {
    int statusCode = 0;
    std::string headerLines;
    std::string body;
};

/// One request, or a command to the I/O thread, from its submission until its handler is destroyed.
/// One heap node for its whole life: queues link it, nothing copies it.
struct Request {
    enum class Kind : std::uint8_t {
        Put,
        Head,
        Delete,
        Abandon,  ///< A command: give up the endpoint's oldest HEAD.
        Retire,   ///< A command: the session is gone, no request will follow.
    };

    Kind kind = Kind::Put;
    std::shared_ptr<const EndpointSettings> settings;
    std::string target;
    std::string contentType;
    std::string accept;
    const char* content = nullptr;
    std::uint64_t length = 0;
    ResponseHandler handler;
    Clock::time_point submitted;
    Clock::time_point deadline;

    // Used by the I/O thread, except for a request that is refused when it is made.
    std::uint64_t number = 0;  ///< Counts the requests of the endpoint.
    CommunicationStatus status = CommunicationStatus::Ok;
    Answer answer;
    std::uint64_t attempts = 0;  ///< Connections over which the request was sent.

    Request* next = nullptr;  ///< Link of the queue that contains the request.
};

/// The method of a request, for Put, Head and Delete.
constexpr ClientStatistics::Method methodOf(Request::Kind kind) {
    using Method = ClientStatistics::Method;
    return kind == Request::Kind::Put    ? Method::Put
           : kind == Request::Kind::Head ? Method::Head
                                         : Method::Delete;
}

/// A queue of requests, first in first out. Owns the requests; never allocates. Not synchronised.
class RequestQueue {
  public:
    RequestQueue() = default;
    RequestQueue(RequestQueue&& other) noexcept
        : first_(std::exchange(other.first_, nullptr)),
          last_(std::exchange(other.last_, nullptr)),
          size_(std::exchange(other.size_, 0)) {}
    RequestQueue& operator=(RequestQueue&&) = delete;
    ~RequestQueue() { clear(); }

    bool isEmpty() const { return first_ == nullptr; }
    std::size_t size() const { return size_; }
    /// The first request; the queue must not be empty.
    const Request& front() const { return *first_; }

    void push(std::unique_ptr<Request> request) noexcept {
        Request* const added = request.release();
        (first_ == nullptr ? first_ : last_->next) = added;
        last_ = added;
        ++size_;
    }
    /// Null if the queue is empty.
    std::unique_ptr<Request> pop() noexcept {
        std::unique_ptr<Request> request(first_);
        if (request) {
            first_ = std::exchange(request->next, nullptr);
            --size_;
        }
        return request;
    }
    /// Handlers are destroyed with their requests and may use the queue meanwhile.
    void clear() noexcept {
        while (pop()) {
        }
    }

  private:
    Request* first_ = nullptr;
    Request* last_ = nullptr;
    std::size_t size_ = 0;
};

}  // namespace orvx::communication
