#pragma once

#include "HttpEndpoint.h"
#include "RequestInbox.h"

#include <orvx/utility/StreamingLogger.h>
#include <orvx/utility/WorkerThread.h>

#include <chrono>
#include <memory>
#include <unordered_map>

namespace orvx::communication {

/// One run of a communication context, from init() to deinit(): the I/O thread, libcurl's multi
/// handle, and what is under way. The thread keeps it alive.
///
/// Thread-safety: start() and stop() by one thread at a time.
class HttpEngine : public std::enable_shared_from_this<HttpEngine> {
  public:
    /// Throws utility::OrvFoundationException when libcurl cannot be set up.
    HttpEngine(std::shared_ptr<RequestInbox> inbox, utility::StreamingLogger logger);
    HttpEngine(const HttpEngine&) = delete;
    HttpEngine& operator=(const HttpEngine&) = delete;

    /// Opens the inbox and starts the thread. Throws std::system_error.
    void start();
    /// Gives up what is under way and waits for the thread's end, but not on that thread itself: it
    /// is for another one to call it again. Does nothing in a forked child.
    void stop();
    /// Whether a stop() has waited.
    bool hasEnded() const { return hasEnded_; }
    /// From start() to stop().
    bool isRunning() const { return inbox_->isOpenFor(context_.multi); }

  private:
    struct MultiDeleter {
        void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
    };
    using Multi = std::unique_ptr<CURLM, MultiDeleter>;

    static Multi makeMulti();

    void run();
    void collect();
    void takeOrders();
    void takeOrder(std::unique_ptr<Request> order);
    void addRequest(std::unique_ptr<Request> request);
    bool startRequests(Clock::time_point now);
    void boundIdleConnections();
    void callHandlers(Clock::time_point now);
    void callHandler(Request& request);
    void wait();
    std::chrono::milliseconds longestWait() const;
    void cleanUp();

    const std::shared_ptr<RequestInbox> inbox_;
    const utility::StreamingLogger logger_;
    utility::WorkerThread thread_;
    bool hasEnded_ = false;

    // Of the I/O thread from here on.
    Multi multi_;
    TransferContext context_;
    std::unordered_map<const EndpointSettings*, HttpEndpoint> endpoints_;
    RequestQueue done_;
};

}  // namespace orvx::communication
