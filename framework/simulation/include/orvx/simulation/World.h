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
/// Copies are the same request; it may be kept longer than the client. Not synchronised.
class Request {
  public:
    struct Data;
    explicit Request(std::shared_ptr<Data> data);  ///< For the world: see World::takeRequest().

    const std::string& method() const;  ///< "PUT", "HEAD" or "DELETE"
    /// The path as the client gave it.
    const std::string& path() const;
    const std::string& contentType() const;  ///< empty for a HEAD
    const std::string& accept() const;       ///< empty but for a PUT
    const std::string& body() const;         ///< a copy made when the request was sent
    /// The host of the registry that was asked.
    const std::string& host() const;
    /// The port of the registry that was asked.
    std::uint16_t port() const;

    /// False once it is answered, abandoned or dropped by a stop.
    bool isOutstanding() const;

    /// Answers it; nothing happens when it is not outstanding (an answer that comes too late).
    /// `headerLines` as in HttpResponse; a PUT needs a 200 or 201 with "Location: /uuid\r\n". The
    /// second form also takes what is no answer: HttpResponse(CommunicationStatus::ConnectFailed).
    /// The client's own callbacks run with the next World::settle().
    void answer(int statusCode, const std::string& headerLines = "", const std::string& body = "");
    /// As above, with an answer or a failure of the network.
    void answer(const communication::HttpResponse& response);

  private:
    std::shared_ptr<Data> data_;
};

/// Simulated time, threads and network for the clients that are made while it exists. Nothing
/// happens by itself: the test turns the clock, runs the queued tasks and answers the requests, all
/// on its own thread. So an hour takes no time, and every run is the same. Registry does the common
/// things for it.
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
/// A program that simulates simulates everything: QueuedTimer, SingleThreadAsyncTaskExecutor and
/// OrvClientCommunicationContext have second definitions, which belong to the world in existence
/// when they are constructed. Making one of them, or a client, without a world throws
/// std::logic_error.
///
/// One world at a time; it must outlive the clients made in it.
///
/// Thread-safety: none; world, clients and all that belongs to them are used on one thread. The
/// client's blocking forms cannot be used: they wait for an answer that this thread is to give. A
/// setWithdrawAtDeinit() waits in real time for the same answers, until its bound has passed.
class World {
  public:
    /// Begins at the time zero. Throws std::logic_error when there is a world already.
    World();
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // Time and the timers' threads.

    /// Since the world began, which is 1 January 2026, 0:00 UTC, by the system's clock.
    std::chrono::milliseconds now() const;
    /// Moves the clock and runs the timer tasks that fall due, in the order of their due times,
    /// each at its own; also those that are added on the way. It runs timer tasks only: see
    /// settle(). Nothing and less move nothing, and run what is due now.
    void advance(std::chrono::milliseconds duration);
    /// When the next timer task falls due, from now; empty when none is pending.
    std::optional<std::chrono::milliseconds> nextDelay() const;
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

    /// What the client asked for when it first talked to an endpoint.
    struct Session {
        /// The registry's host.
        std::string host;
        /// The registry's port.
        std::uint16_t port;
        /// What the session was made with.
        communication::HttpConfig config;
    };
    /// Every session made so far, in order.
    const std::vector<Session>& sessions() const;

    // Faults.

    /// Steps at which a test can interfere; what its hook throws leaves the operation, as it would
    /// when the system fails there: OrvServiceRegistryContext::init() (where the executor's start
    /// ends the process), or the first registration at an endpoint.
    enum class Step { InitCommunication, StartExecutor, StartTimer, MakeSession };
    /// Called at each step; replaces the hook before. Default: none.
    void setHook(std::function<void(Step)> hook);

  private:
    std::shared_ptr<WorldState> state_;
};

}  // namespace orvx::simulation
