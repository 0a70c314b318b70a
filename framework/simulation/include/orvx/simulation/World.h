#pragma once

#include <orvx/communication/HttpConfig.h>
#include <orvx/communication/HttpResponse.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvx::simulation {

struct WorldState;

/// A request that a client under test has sent and the test answers by hand.
/// The answer runs the client's handler at once, as the I/O thread would, before the call returns.
class Request {
  public:
    struct Data;
    explicit Request(std::shared_ptr<Data> data);

    const std::string& method() const;  ///< "PUT", "HEAD" or "DELETE"
    const std::string& path() const;
    const std::string& contentType() const;  ///< empty for a HEAD
    const std::string& accept() const;       ///< empty but for a PUT
    const std::string& body() const;         ///< a copy made when the request was sent
    const std::string& host() const;
    std::uint16_t port() const;

    /// False once it is answered, abandoned or dropped by a stop.
    bool isOutstanding() const;

    /// Answers it; nothing happens when it is not outstanding (an answer that comes too late).
    /// `headerLines` as in HttpResponse.
    void answer(int statusCode, const std::string& headerLines = "", const std::string& body = "");
    void answer(const communication::HttpResponse& response);

  private:
    std::shared_ptr<Data> data_;
};

/// Simulated time, threads and network for the clients that are made while it exists: QueuedTimer,
/// SingleThreadAsyncTaskExecutor and OrvClientCommunicationContext have second definitions that
/// belong to the world in existence when they are constructed. Nothing happens by itself: the test
/// turns the clock, runs the queued tasks and answers the requests, all on its own thread.
///
/// One world at a time; it must outlive what is made in it. Not synchronised.
class World {
  public:
    World();
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Time and the timers' threads.

    /// Since the world began.
    std::chrono::milliseconds now() const;
    /// Moves the clock and runs the timer tasks that fall due, in the order of their due times,
    /// each at its own; also those that are added on the way. It runs timer tasks only: see
    /// settle().
    void advance(std::chrono::milliseconds duration);
    /// When the pending timer tasks fall due, from now, in that order.
    std::vector<std::chrono::milliseconds> pendingDelays() const;
    /// The delays given to addTask() since the last call, in order, exactly as given.
    std::vector<std::chrono::milliseconds> takeAddedDelays();

    // The executors' threads and the I/O threads.

    /// Runs what is queued on I/O threads and executors, until nothing is.
    void settle();
    /// Runs what is queued on I/O threads (abandoned requests, requests without a session) only.
    void runIo();
    /// Tasks queued on executors, running or stopped.
    std::size_t queuedTasks() const;
    /// The name of the simulated thread that is running ("ORVX_SRCBExec", "ORVX_SRRExec",
    /// "ORVX_HttpIO"); empty on the test's own.
    std::string currentThread() const;

    // Network.

    /// The oldest request that was not taken yet; empty when there is none.
    std::optional<Request> takeRequest();
    /// How many requests wait to be taken.
    std::size_t requestsToTake() const;
    /// Requests that were neither answered, abandoned nor dropped.
    std::size_t outstandingRequests() const;

    struct Session {
        std::string host;
        std::uint16_t port;
        communication::HttpConfig config;
    };
    /// Every session made so far, in order.
    const std::vector<Session>& sessions() const;

    // Faults.

    /// Steps at which a test can interfere; what its hook throws leaves the operation.
    enum class Step { InitCommunication, StartExecutor, StartTimer, MakeSession };
    void setHook(std::function<void(Step)> hook);

  private:
    std::shared_ptr<WorldState> state_;
};

}  // namespace orvx::simulation
