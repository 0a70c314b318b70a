#pragma once

#include <orvx/communication/ClientStatistics.h>
#include <orvx/communication/HealthCheck.h>
#include <orvx/communication/HttpConfig.h>
#include <orvx/communication/IClientHttpSession.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace orvx::communication {

using Clock = std::chrono::steady_clock;

/// Where a server or a proxy is.
struct Origin {
    std::string host;  ///< A name or an address, without brackets.
    std::uint16_t port = 0;
    std::string authority;  ///< Both, as requests name them.
};

/// What the requests of one session have in common. Never changed once the session is made.
struct EndpointSettings {
    Origin origin;
    Origin proxy;  ///< Without a host there is none.
    HttpConfig config;
    std::shared_ptr<HealthCheck> healthCheck;
    std::shared_ptr<ClientStatistics> statistics;
};

/// An answer as it is received.
struct Answer {
    int statusCode = 0;
    std::string headerLines;
    std::string body;
};

/// One request, or an order to the I/O thread, from submission until its handler is destroyed.
/// A single heap node for its whole life: queues link it, nothing copies it.
struct Request {
    enum class Kind : std::uint8_t {
        Put,
        Head,
        Delete,
        Abandon,  ///< Not a request: give up the endpoint's oldest HEAD.
        Retire,   ///< Not a request: the session is gone, nothing will follow.
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

    // Of the I/O thread, but for a request that is refused from the start.
    std::uint64_t number = 0;  ///< Counts the requests of its endpoint.
    CommunicationStatus status = CommunicationStatus::Ok;
    Answer answer;
    std::uint64_t attempts = 0;  ///< Connections that it was sent over.

    Request* next = nullptr;  ///< Of the queue that it is in.
};

/// The method of a request; of Put, Head or Delete.
constexpr ClientStatistics::Method methodOf(Request::Kind kind) {
    using Method = ClientStatistics::Method;
    return kind == Request::Kind::Put    ? Method::Put
           : kind == Request::Kind::Head ? Method::Head
                                         : Method::Delete;
}

/// Requests, first in first out. Owns them; never allocates. Not synchronised.
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
    /// Of a queue that is not empty.
    const Request& front() const { return *first_; }

    void push(std::unique_ptr<Request> request) noexcept {
        Request* const added = request.release();
        (first_ == nullptr ? first_ : last_->next) = added;
        last_ = added;
        ++size_;
    }
    /// Null when it is empty.
    std::unique_ptr<Request> pop() noexcept {
        std::unique_ptr<Request> request(first_);
        if (request) {
            first_ = std::exchange(request->next, nullptr);
            --size_;
        }
        return request;
    }
    /// Handlers are destroyed with their requests, and may do as they like with their queue.
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
