#pragma once

#include "HttpEndpoint.h"
#include "Request.h"
#include "RequestInbox.h"
#include "WakeUp.h"

#include <orvx/utility/StreamingLogger.h>
#include <orvx/utility/WorkerThread.h>

#include <memory>
#include <unordered_map>

namespace orvx::communication {

/// One run of a communication context, from init() to deinit(): the I/O thread, its event loop and
/// the outstanding requests. The thread keeps the object alive.
///
/// Thread-safety: start() and stop() are called by one thread at a time.
class HttpEngine : public std::enable_shared_from_this<HttpEngine> {
  public:
    /// Throws utility::OrvFoundationException if there is no file descriptor left.
    HttpEngine(std::shared_ptr<RequestInbox> inbox, utility::StreamingLogger logger);
    ~HttpEngine();
    HttpEngine(const HttpEngine&) = delete;
    HttpEngine& operator=(const HttpEngine&) = delete;

    /// Opens the inbox and starts the thread. Throws std::system_error.
    void start();
    /// Gives up outstanding requests and waits for the end of the thread. On the I/O thread it only
    /// cancels; another thread must call it again to join. Does nothing in a forked child.
    void stop();
    /// Whether a stop() has joined the thread.
    bool hasEnded() const { return hasEnded_; }
    /// True from start() to stop().
    bool isRunning() const;

  private:
    struct Loop;

    void run();
    void takeSubmitted();
    void handleSubmitted(std::unique_ptr<Request> request);
    void addRequest(std::unique_ptr<Request> request);
    void takeLookUps();
    void processEndpoints(Clock::time_point now);
    bool callHandlers(Clock::time_point now);
    void callHandler(Request& request);
    void cleanUp();

    const std::shared_ptr<RequestInbox> inbox_;
    const utility::StreamingLogger logger_;
    utility::WorkerThread thread_;
    bool hasEnded_ = false;

    // Used by the I/O thread only.
    RequestQueue done_;
    std::unique_ptr<Loop> loop_;
    Clock::time_point nextTime_ = Clock::time_point::max();
    std::unordered_map<const EndpointSettings*, HttpEndpoint> endpoints_;
};

}  // namespace orvx::communication
