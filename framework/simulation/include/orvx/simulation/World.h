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

/// A request that a client under test has sent and that the test answers.
/// The answer calls the client's handler before it returns, simulating the I/O thread. Copies refer
/// to the same request. A request may be kept longer than the client. Not synchronised.
class Request {
  public:
    struct Data;
    explicit Request(std::shared_ptr<Data> data);  ///< For the world: see World::takeRequest().

    const std::string& method() const;  ///< "PUT", "HEAD" or "DELETE"
    /// The path as the client gave it; a "/" is put before one that begins with none.
    const std::string& path() const;
    const std::string& contentType() const;  ///< empty for a HEAD
    const std::string& accept() const;       ///< empty except for a PUT
    const std::string& body() const;         ///< a copy made when the request was sent
    /// The host of the registry to which the request was sent.
    const std::string& host() const;
    /// The port of the registry to which the request was sent.
    std::uint16_t port() const;

    /// False once the request is answered, abandoned or dropped by a stop.
    bool isOutstanding() const;

    /// Answers the request. Does nothing if it is not outstanding, which simulates a late answer.
    /// `headerLines` as in HttpResponse; a PUT needs a 200 or 201 with "Location: /uuid\r\n".
    /// The client's own callbacks run with the next World::settle().
    void answer(int statusCode, const std::string& headerLines = "", const std::string& body = "");
    /// Answers with an HTTP answer, or with a failure such as
    /// HttpResponse(CommunicationStatus::ConnectFailed).
    void answer(const communication::HttpResponse& response);

  private:
    std::shared_ptr<Data> data_;
};

/// Simulated time, threads and network for the clients that are made while it exists. Nothing
/// happens by itself: the test advances the clock, runs the queued tasks and answers the requests,
/// all on its own thread. So an hour takes no time. Registry answers the common requests
/// automatically.
///
/// The delays of retries and, with resilience, the times of checks have a random part, which
/// differs in each run: a test advances the clock by the longest delay, and does not count retries.
/// HttpConfig::requestTimeout is not simulated: a request waits until the test answers it.
///
///     World world;                                    // first: the client lives in it
///     OrvServiceRegistryContext context;
///     context.init();
///     context.getServiceRegistryClient()->registerServiceAtRegistry(registry, service, callback);
///     world.takeRequest()->answer(201, "Location: /1\r\n");  // the PUT
///     world.settle();                                 // the callback has been called
///     world.advance(10s);                             // the first check is due
///     world.takeRequest()->answer(404);               // the HEAD: the registry has lost the entry
///
/// The simulation covers the whole program: QueuedTimer, SingleThreadAsyncTaskExecutor and
/// OrvClientCommunicationContext have second definitions. Their objects belong to the world that
/// exists when they are constructed. Constructing one of them, or a client, without a world throws
/// std::logic_error.
///
/// Only one world can exist at a time; it must outlive the clients made in it.
///
/// Thread-safety: none; world, clients and all their objects are used on one thread. The client's
/// blocking forms cannot be used: they wait for an answer that the same thread has to give. With
/// setWithdrawAtDeinit(), deinit() waits for such answers in real time, until its bound has passed.
class World {
  public:
    /// Begins at time zero. Throws std::logic_error if there is a world already.
    World();
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Time and the timers' threads.

    /// The time since the world began. The world begins on 1 January 2026, 0:00 UTC, by the
    /// system's clock.
    std::chrono::milliseconds now() const;
    /// Advances the clock and runs the timer tasks that fall due, in the order of their due times,
    /// each at its own time. This includes tasks that are added meanwhile. It runs timer tasks
    /// only: see settle(). Zero and less do not move the clock, and run the tasks that are due now.
    void advance(std::chrono::milliseconds duration);
    /// The time until the next timer task falls due; empty if none is pending.
    std::optional<std::chrono::milliseconds> nextDelay() const;
    /// The times until the pending timer tasks fall due, in ascending order.
    std::vector<std::chrono::milliseconds> pendingDelays() const;
    /// The delays given to addTask() since the last call, in order, exactly as given.
    std::vector<std::chrono::milliseconds> takeAddedDelays();

    // The executors' threads and the I/O threads.

    /// Runs the tasks that are queued on I/O threads and executors, until there are none.
    void settle();
    /// Runs only the tasks that are queued on I/O threads: abandoned requests and requests without
    /// a session.
    void runIo();
    /// Tasks queued on executors, running or stopped.
    std::size_t queuedTasks() const;
    /// The name of the simulated thread that is running ("ORVX_SRCBExec", "ORVX_SRRExec",
    /// "ORVX_HttpIO"); empty on the test's own thread.
    std::string currentThread() const;

    // Network.

    /// The oldest request that was not taken yet; empty if there is none.
    std::optional<Request> takeRequest();
    /// The number of requests that were not taken yet.
    std::size_t requestsToTake() const;
    /// The number of requests that were neither answered, abandoned nor dropped.
    std::size_t outstandingRequests() const;

    /// The arguments with which a client made a session.
    struct Session {
        /// The registry's host.
        std::string host;
        /// The registry's port.
        std::uint16_t port;
        /// The session's configuration.
        communication::HttpConfig config;
    };
    /// Every session made so far, in order.
    const std::vector<Session>& sessions() const;

    // Faults.

    /// Steps at which a test can inject a fault. An exception of the hook leaves
    /// OrvServiceRegistryContext::init(), like a failure of the system; a failure to start the
    /// executor ends the process. At MakeSession, which is part of the first request to an
    /// endpoint, std::bad_alloc leaves the operation without resilience, and is followed by another
    /// attempt with resilience. After any other exception no request can be sent to the endpoint.
    enum class Step { InitCommunication, StartExecutor, StartTimer, MakeSession };
    /// Sets the function that is called at each step; replaces the one before. Default: none.
    void setHook(std::function<void(Step)> hook);

  private:
    std::shared_ptr<WorldState> state_;
};

}  // namespace orvx::simulation
