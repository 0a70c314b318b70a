#pragma once

#include <orvx/utility/Mutex.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "HostileConnection.h"
#include "Http.h"
#include "Loopback.h"
#include "Script.h"

struct pollfd;

namespace orvx::testing {

/// An HTTP server on the loopback, at a port of its own, that answers exactly what a test tells it
/// to, byte by byte:
///
///     HostileServer server;
///     server.nextRequest(response(201, {{"Location", "/entries/1"}}));
///     server.nextRequest(Script().drip("HTTP/1.1 200 OK\r\n", 20ms).reset());
///     ... the client under test talks to server.url("/entries") ...
///     ASSERT_TRUE(server.waitForRequests(2));
///
/// A connection starts with a connection script (by default an empty one), then the server reads
/// request after request and carries out a request script for each.
///
/// Thread-safe. Everything happens on one thread of its own, which ends with the object without
/// waiting for any peer: what is still open is closed.
class HostileServer final : private IScriptSource {
  public:
    /// Called on the server's thread without a lock. May return a response.
    using Handler = std::function<Script(const Request&)>;

    struct Counters {
        std::size_t connections = 0;  ///< All that were accepted.
        std::size_t open = 0;
        std::size_t maxOpen = 0;       ///< The maximum number that were open at the same time.
        std::size_t closedByPeer = 0;  ///< Ended by the peer's FIN or RST, not by a script.
        std::size_t requests = 0;      ///< Requests that were read completely.
    };
    using Condition = std::function<bool(const Counters&)>;

    static constexpr std::chrono::milliseconds kPatience{10000};

    /// When it returns, the server listens at `port`; zero means any free port. Throws
    /// std::system_error.
    explicit HostileServer(Loopback loopback = Loopback::V4, std::uint16_t port = 0);
    ~HostileServer();

    std::uint16_t port() const { return port_; }
    /// The URL of a target, for example "http://127.0.0.1:40001/entries".
    std::string url(const std::string& target = "") const;

    /// The script with which the next connection without a script begins, in the order of the
    /// calls.
    void nextConnection(Script script) ORVX_EXCLUDES(mutex_);
    /// The script with which every further connection begins; empty by default.
    void everyConnection(Script script) ORVX_EXCLUDES(mutex_);
    /// The answer to the next request without a script, on any connection, in the order of the
    /// calls. May be a response.
    void nextRequest(Script script) ORVX_EXCLUDES(mutex_);
    /// The handler of every further request; it answers response(500) by default.
    void onRequest(Handler handler) ORVX_EXCLUDES(mutex_);

    /// Continues every script that waits for a release of this name, now or later.
    void release(const std::string& gate) ORVX_EXCLUDES(mutex_);

    /// When it returns, connects are refused, and open connections continue. The port stays
    /// reserved.
    void stopListening() ORVX_EXCLUDES(mutex_) { setListening(false); }
    /// When it returns, connects at the same port succeed again.
    void listenAgain() ORVX_EXCLUDES(mutex_) { setListening(true); }

    /// These wait until there are at least `count`. They return false after the time-out.
    bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout = kPatience) const;
    bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = kPatience) const;
    /// Counts the connections that the peer closed.
    bool waitForClosed(std::size_t count, std::chrono::milliseconds timeout = kPatience) const;
    /// The condition is evaluated under a lock: it must not call the server.
    bool waitFor(const Condition& condition, std::chrono::milliseconds timeout = kPatience) const
        ORVX_EXCLUDES(mutex_);

    Counters counters() const ORVX_EXCLUDES(mutex_);
    /// All requests so far, in the order in which they became complete.
    std::vector<Request> requests() const ORVX_EXCLUDES(mutex_);

  private:
    void record(const Request& request) override ORVX_EXCLUDES(mutex_);
    Script scriptFor(const Request& request) override ORVX_EXCLUDES(mutex_);
    bool isReleased(const std::string& gate) override ORVX_EXCLUDES(mutex_);

    void setListening(bool listening) ORVX_EXCLUDES(mutex_);
    void wake() const;

    void serve();
    bool takeOrders() ORVX_EXCLUDES(mutex_);
    std::vector<pollfd> poll() const;
    int pollTimeout() const;
    void acceptOne() ORVX_EXCLUDES(mutex_);
    Script scriptForConnection() ORVX_EXCLUDES(mutex_);
    void dropClosed() ORVX_EXCLUDES(mutex_);

    const Loopback loopback_;
    const Socket reservation_;
    const std::uint16_t port_;
    const Socket wakeUp_;

    // Used by the server's thread only.
    Socket listener_;
    std::vector<std::unique_ptr<HostileConnection>> connections_;

    mutable utility::Mutex mutex_;
    mutable std::condition_variable changed_;
    bool stop_ ORVX_GUARDED_BY(mutex_) = false;
    bool listen_ ORVX_GUARDED_BY(mutex_) = true;
    bool listening_ ORVX_GUARDED_BY(mutex_) = false;
    std::deque<Script> connectionScripts_ ORVX_GUARDED_BY(mutex_);
    Script everyConnection_ ORVX_GUARDED_BY(mutex_);
    std::deque<Script> requestScripts_ ORVX_GUARDED_BY(mutex_);
    Handler handler_ ORVX_GUARDED_BY(mutex_);
    std::set<std::string> released_ ORVX_GUARDED_BY(mutex_);
    std::vector<Request> requests_ ORVX_GUARDED_BY(mutex_);
    Counters counters_ ORVX_GUARDED_BY(mutex_);

    std::thread thread_;
};

}  // namespace orvx::testing
