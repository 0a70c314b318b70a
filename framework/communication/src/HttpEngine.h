#pragma once

#include "HttpEndpoint.h"
#include "Request.h"
#include "RequestInbox.h"
#include "WakeUp.h"

#include <orvx/utility/StreamingLogger.h>
#include <orvx/utility/WorkerThread.h>

#include <memory>
#include <optional>
#include <unordered_map>

namespace orvx::communication {

/// One run of a communication context, from init() to deinit(): the I/O thread, its event loop, and
/// what is under way. The thread keeps it alive.
///
/// Thread-safety: start() and stop() by one thread at a time.
class HttpEngine : public std::enable_shared_from_this<HttpEngine> {
  public:
    /// Throws utility::OrvFoundationException when a descriptor is lacking.
    HttpEngine(std::shared_ptr<RequestInbox> inbox, utility::StreamingLogger logger);
    ~HttpEngine();
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
    bool isRunning() const;

  private:
    struct Loop;

    void run();
    void takeOrders();
    void takeOrder(std::unique_ptr<Request> order);
    void addRequest(std::unique_ptr<Request> request);
    void takeLookUps();
    void goOn(Clock::time_point now);
    bool callHandlers(Clock::time_point now);
    void callHandler(Request& request);
    void cleanUp();

    const std::shared_ptr<RequestInbox> inbox_;
    const utility::StreamingLogger logger_;
    utility::WorkerThread thread_;
    bool hasEnded_ = false;

    // Of the I/O thread from here on.
    RequestQueue done_;
    std::unique_ptr<Loop> loop_;
    Clock::time_point nextTime_ = Clock::time_point::max();
    std::unordered_map<const EndpointSettings*, HttpEndpoint> endpoints_;
};

}  // namespace orvx::communication
