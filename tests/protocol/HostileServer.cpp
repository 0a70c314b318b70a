// The hostile server: one thread that polls the listener and all connections, and the state that
// tests read.
//
// Threads: tests call the public functions from any thread. Sockets and connections belong to the
// server's thread, which other threads wake through an eventfd. All shared state is guarded by
// mutex_, which is never held during a call of a handler or a connection.

#include "HostileServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace orvx::testing {

using utility::MutexLock;

HostileServer::HostileServer(Loopback loopback, std::uint16_t port)
    : loopback_(loopback),
      reservation_(bindLoopback(loopback, port)),
      port_(portOf(reservation_)),
      wakeUp_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      handler_([](const Request&) { return response(500); }),
      thread_([this] { serve(); }) {
    listenAgain();
}

HostileServer::~HostileServer() {
    {
        MutexLock lock(mutex_);
        stop_ = true;
    }
    wake();
    thread_.join();
}

std::string HostileServer::url(const std::string& target) const {
    return "http://" + hostOf(loopback_) + ":" + std::to_string(port_) + target;
}

void HostileServer::nextConnection(Script script) {
    MutexLock lock(mutex_);
    connectionScripts_.push_back(std::move(script));
}

void HostileServer::everyConnection(Script script) {
    MutexLock lock(mutex_);
    everyConnection_ = std::move(script);
}

void HostileServer::nextRequest(Script script) {
    MutexLock lock(mutex_);
    requestScripts_.push_back(std::move(script));
}

void HostileServer::onRequest(Handler handler) {
    MutexLock lock(mutex_);
    handler_ = std::move(handler);
}

void HostileServer::release(const std::string& gate) {
    {
        MutexLock lock(mutex_);
        released_.insert(gate);
    }
    wake();
}

void HostileServer::setListening(bool listening) {
    MutexLock lock(mutex_);
    listen_ = listening;
    wake();
    while (listening_ != listening) {
        changed_.wait(lock.native());
    }
}

void HostileServer::wake() const {
    ::eventfd_write(wakeUp_.fd(), 1);
}

bool HostileServer::waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const {
    return waitFor([count](const Counters& now) { return now.connections >= count; }, timeout);
}

bool HostileServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    return waitFor([count](const Counters& now) { return now.requests >= count; }, timeout);
}

bool HostileServer::waitForClosed(std::size_t count, std::chrono::milliseconds timeout) const {
    return waitFor([count](const Counters& now) { return now.closedByPeer >= count; }, timeout);
}

bool HostileServer::waitFor(const Condition& condition, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(mutex_);
    while (!condition(counters_)) {
        if (changed_.wait_until(lock.native(), deadline) == std::cv_status::timeout) {
            return condition(counters_);
        }
    }
    return true;
}

HostileServer::Counters HostileServer::counters() const {
    MutexLock lock(mutex_);
    return counters_;
}

std::vector<Request> HostileServer::requests() const {
    MutexLock lock(mutex_);
    return requests_;
}

void HostileServer::record(const Request& request) {
    MutexLock lock(mutex_);
    requests_.push_back(request);
    ++counters_.requests;
    changed_.notify_all();
}

Script HostileServer::scriptFor(const Request& request) {
    MutexLock lock(mutex_);
    if (!requestScripts_.empty()) {
        Script script = std::move(requestScripts_.front());
        requestScripts_.pop_front();
        return script;
    }
    const Handler handler = handler_;
    lock.unlock();
    return handler(request);
}

bool HostileServer::isReleased(const std::string& gate) {
    MutexLock lock(mutex_);
    return released_.count(gate) != 0;
}

void HostileServer::serve() {
    while (takeOrders()) {
        const auto polled = poll();
        // Closed connections are handled before the accept: a peer that closes one connection and
        // then opens another never has two at a time. For the same reason poll() checks the
        // listener first, and there is one accept for each poll().
        for (std::size_t i = 0; i < connections_.size(); ++i) {
            connections_[i]->run(polled[i + 2].revents);
        }
        dropClosed();
        if (polled[0].revents != 0) {
            acceptOne();
        }
    }
}

bool HostileServer::takeOrders() {
    MutexLock lock(mutex_);
    if (listen_ != listening_) {
        listener_ = Socket();
        if (listen_) {
            listener_ = bindLoopback(loopback_, port_);
            listenOn(listener_, SOMAXCONN);
        }
        listening_ = listen_;
        changed_.notify_all();
    }
    return !stop_;
}

std::vector<pollfd> HostileServer::poll() const {
    std::vector<pollfd> polled{{listener_.fd(), POLLIN, 0}, {wakeUp_.fd(), POLLIN, 0}};
    for (const auto& connection : connections_) {
        polled.push_back({connection->fd(), connection->events(), 0});
    }
    ::poll(polled.data(), polled.size(), pollTimeout());
    // Cleared before the state that a wake-up announces is read: a wake-up during the reading stays
    // pending for the next poll.
    eventfd_t ignored = 0;
    ::eventfd_read(wakeUp_.fd(), &ignored);
    return polled;
}

int HostileServer::pollTimeout() const {
    using std::chrono::milliseconds;
    milliseconds timeout(-1);
    for (const auto& connection : connections_) {
        if (const auto due = connection->due()) {
            const auto left =
                std::chrono::ceil<milliseconds>(*due - HostileConnection::Clock::now());
            const auto wait = std::max(left, milliseconds::zero());
            timeout = timeout < milliseconds::zero() ? wait : std::min(timeout, wait);
        }
    }
    return static_cast<int>(timeout.count());
}

void HostileServer::acceptOne() {
    Socket socket(::accept4(listener_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket.fd() < 0) {
        return;
    }
    const int on = 1;
    ::setsockopt(socket.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::size_t index = 0;
    {
        MutexLock lock(mutex_);
        index = counters_.connections++;
        counters_.maxOpen = std::max(counters_.maxOpen, ++counters_.open);
        changed_.notify_all();
    }
    IScriptSource& source = *this;
    connections_.push_back(std::make_unique<HostileConnection>(std::move(socket), index,
                                                               scriptForConnection(), source));
    connections_.back()->run(0);
    dropClosed();
}

Script HostileServer::scriptForConnection() {
    MutexLock lock(mutex_);
    if (connectionScripts_.empty()) {
        return everyConnection_;
    }
    Script script = std::move(connectionScripts_.front());
    connectionScripts_.pop_front();
    return script;
}

void HostileServer::dropClosed() {
    using State = HostileConnection::State;
    const auto closed = std::stable_partition(
        connections_.begin(), connections_.end(),
        [](const auto& connection) { return connection->state() == State::Open; });
    MutexLock lock(mutex_);
    for (auto it = closed; it != connections_.end(); ++it) {
        --counters_.open;
        counters_.closedByPeer += (*it)->state() == State::ClosedByPeer ? 1U : 0U;
    }
    connections_.erase(closed, connections_.end());
    changed_.notify_all();
}

}  // namespace orvx::testing
