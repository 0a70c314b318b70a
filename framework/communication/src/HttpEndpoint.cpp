// The connections of one endpoint, and the repetition of a request that a kept connection lost.
// Entered by the I/O thread only; there is no lock. A dropped connection lives until the next
// process(), because the call may come from that connection.

#include "HttpEndpoint.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace orvx::communication {

namespace {

// The pause after a further connection has failed while another one serves the requests.
constexpr std::chrono::seconds kPauseOfFurther(1);

/// Whether a connection that broke with this status has ended without a whole answer. Otherwise the
/// answer was refused, or memory ran out.
bool hasEnded(CommunicationStatus status) {
    switch (status) {
        case CommunicationStatus::Ok:  // The request is repeated.
        case CommunicationStatus::SendFailed:
        case CommunicationStatus::ReceiveFailed:
        case CommunicationStatus::CutShort:
        case CommunicationStatus::TlsFailed:
            return true;
        default:
            return false;
    }
}

}  // namespace

HttpEndpoint::HttpEndpoint(const EndpointContext& context,
                           std::shared_ptr<const EndpointSettings> settings)
    : context_(context),
      settings_(std::move(settings)),
      addresses_(*settings_, context.resolver),
      causes_(*settings_, context.logger) {
    if (settings_->config.tls.enabled) {
        tls_.emplace(settings_->config.tls, settings_->origin.host);
    }
}

HttpEndpoint::~HttpEndpoint() {
    for (const Connecting& connecting : connecting_) {
        connecting.connector->cancel();
    }
}

void HttpEndpoint::add(std::unique_ptr<Request> request) {
    request->number = ++added_;
    wakeAt(request->deadline);
    waiting_.add(std::move(request));
}

// A HEAD that waits for its first connection is newer than those that were sent.
std::unique_ptr<Request> HttpEndpoint::takeOldestHead() {
    auto repeat = waiting_.takeOldestHeadOfRepeats();
    Connection* oldest = nullptr;
    for (const auto& connection : connections_) {
        const Request* const request = connection->request();
        if (request != nullptr && request->kind == Request::Kind::Head &&
            (oldest == nullptr || request->number < oldest->request()->number)) {
            oldest = connection.get();
        }
    }
    if (repeat && (oldest == nullptr || repeat->number < oldest->request()->number)) {
        return repeat;
    }
    if (repeat) {
        waiting_.addRepeat(std::move(repeat));
    }
    if (oldest == nullptr) {
        return waiting_.takeOldestHead();
    }
    auto request = oldest->giveUp();
    --busy_;
    avoid(oldest->address());
    drop(*oldest);
    return request;
}

void HttpEndpoint::process(Clock::time_point now) {
    dropped_.clear();
    if (now >= nextTime_) {
        expire(now);
    }
    serveIdle(now);
    if (!waiting_.isEmpty()) {
        connect(now);
    } else if (std::exchange(hasNew_, false)) {
        // If the server ends one of them, no waiting request fails, and a request that was sent
        // over it is repeated.
        std::for_each(idle_.begin(), idle_.end(), [](Connection* one) { one->keep(); });
    }
}

// Handles everything that has timed out, and records the next deadline.
void HttpEndpoint::expire(Clock::time_point now) {
    nextTime_ = Clock::time_point::max();
    RequestQueue expired = waiting_.takeExpired(now);
    while (auto request = expired.pop()) {
        complete(std::move(request), CommunicationStatus::TimedOut);
    }
    wakeAt(waiting_.nextDeadline());
    for (std::size_t i = connections_.size(); i-- > 0;) {
        Connection& connection = *connections_[i];
        const Request* const request = connection.request();
        if (request == nullptr) {
            continue;
        }
        if (request->deadline > now) {
            wakeAt(request->deadline);
            continue;
        }
        complete(connection.giveUp(), CommunicationStatus::TimedOut);
        --busy_;
        avoid(connection.address());
        drop(connection);
    }
    for (std::size_t i = connecting_.size(); i-- > 0;) {
        const auto connector = connecting_[i].connector;
        if (connecting_[i].deadline <= now) {
            const std::string refusal = connector->refusal();
            connector->cancel();
            onConnectFailed(*connector,
                            refusal.empty() ? CommunicationStatus::TimedOut
                                            : CommunicationStatus::ConnectFailed,
                            refusal);
            continue;
        }
        wakeAt(connecting_[i].deadline);
        if (connector->nextTime() <= now) {
            connector->onTime();
        }
        wakeAt(connector->nextTime());
    }
}

// Input on an unused connection may be a TLS session ticket. The outstanding read consumes it, or
// reports an error, unless the rest of the record does not arrive.
void HttpEndpoint::serveIdle(Clock::time_point now) {
    for (std::size_t i = idle_.size(); i-- > 0 && !waiting_.isEmpty();) {
        Connection& connection = *idle_[i];
        if (!connection.isOutdated() && connection.hasNoInput()) {
            idle_.erase(idle_.begin() + static_cast<std::ptrdiff_t>(i));
            serve(connection);
        } else if (connection.isOutdated() || !connection.isUnused()) {
            drop(connection);
        } else if (const auto end = connection.inputDeadline(now + settings_->connectTimeout());
                   end <= now) {
            if (connection.isNew()) {
                avoid(connection.address());
            }
            drop(connection);
        } else {
            wakeAt(end);
        }
    }
}

/// Sends the next request over the connection, if one is waiting. The connection must not be idle
/// and must have no input.
void HttpEndpoint::serve(Connection& connection) {
    while (auto request = waiting_.takeNext(connection.isNew())) {
        try {
            const std::string& head = headBytes_.make(*request);
            send(connection, request, head);
            return;
        } catch (const std::exception&) {
            complete(std::move(request), CommunicationStatus::OutOfMemory);
        }
    }
    idle_.push_back(&connection);
}

/// Drops the connection if memory runs out, because a part of the request may be sent.
void HttpEndpoint::send(Connection& connection, std::unique_ptr<Request>& request,
                        const std::string& head) noexcept {
    try {
        connection.send(request, head);
        ++busy_;
    } catch (const std::exception&) {
        complete(std::move(request), CommunicationStatus::OutOfMemory);
        drop(connection);
    }
}

void HttpEndpoint::complete(std::unique_ptr<Request> request, CommunicationStatus status,
                            const std::string& cause) {
    request->status = status;
    if (status != CommunicationStatus::Ok) {
        request->answer.body = causes_.of(status, cause);
    }
    context_.done.push(std::move(request));
}

void HttpEndpoint::drop(Connection& connection) {
    idle_.erase(std::remove(idle_.begin(), idle_.end(), &connection), idle_.end());
    const auto found =
        std::find_if(connections_.begin(), connections_.end(),
                     [&connection](const auto& other) { return other.get() == &connection; });
    connection.giveUp();
    dropped_.push_back(std::move(*found));  // onConnected() has reserved the space.
    connections_.erase(found);
}

// Starts one connection at a time until the first is established, so that a server that has just
// restarted is not flooded.
void HttpEndpoint::connect(Clock::time_point now) {
    while (needsConnection(now)) {
        startConnecting(now);
    }
}

bool HttpEndpoint::needsConnection(Clock::time_point now) {
    // Idle connections with input that must be read first: serveIdle() has used or dropped all
    // others for which a request was waiting. A kept one cannot be used for a repetition.
    const auto newOnes = static_cast<std::size_t>(
        std::count_if(idle_.begin(), idle_.end(), [](const auto* one) { return one->isNew(); }));
    const std::size_t unready =
        newOnes + std::min(idle_.size() - newOnes, waiting_.size() - waiting_.repeats());
    const std::size_t most = settings_->config.connectionsPerEndpoint;
    const bool isFirst = connections_.size() == newOnes;
    std::size_t wanted = std::min(waiting_.size(), isFirst ? 1 : most);
    if (!isFirst && now < nextFurther_) {
        wakeAt(nextFurther_);
        wanted = waiting_.repeats();
    }
    return connecting_.size() + unready < wanted && connections_.size() + connecting_.size() < most;
}

void HttpEndpoint::startConnecting(Clock::time_point now) {
    const auto deadline = now + settings_->connectTimeout();
    std::shared_ptr<Connector> connector;
    try {
        connecting_.reserve(connecting_.size() + 1);
        connector =
            std::make_shared<Connector>(context_.io, *settings_, tls_ ? &*tls_ : nullptr, *this);
    } catch (const std::bad_alloc&) {
        failWaiting(CommunicationStatus::OutOfMemory, added_, connections_.empty());
        return;
    }
    connecting_.push_back({connector, deadline, added_});
    wakeAt(deadline);
    try {
        if (addresses_.find()) {
            connector->start(addresses_.inOrder());
            wakeAt(connector->nextTime());
        }
    } catch (const std::bad_alloc&) {
        onConnectFailed(*connector, CommunicationStatus::OutOfMemory, {});
    } catch (const std::exception& error) {
        onConnectFailed(*connector, CommunicationStatus::ResolveFailed,
                        causes_.ofLookUp(error.what()));
    }
}

/// Prefers other addresses, if there are any, to one that gave no answer. Its idle connections send
/// no request any more. A connection over which an answer arrives after this call is kept.
void HttpEndpoint::avoid(const Address& address) {
    if (addresses_.avoid(address)) {
        for (Connection* const connection : idle_) {
            if (connection->address() == address) {
                connection->outdate();
            }
        }
    }
}

void HttpEndpoint::onResolved(const Resolver::LookUp& lookUp) {
    const auto status = addresses_.take(lookUp);
    if (!status) {
        return;
    }
    for (std::size_t i = connecting_.size(); i-- > 0;) {
        const auto connector = connecting_[i].connector;
        if (connector->isStarted()) {
            continue;
        }
        if (*status != CommunicationStatus::Ok) {
            connector->cancel();
            onConnectFailed(*connector, *status, causes_.ofLookUp(lookUp.answer.reason));
        } else {
            connector->start(addresses_.inOrder());
            wakeAt(connector->nextTime());
        }
    }
}

void HttpEndpoint::onConnected(Connector& connector, std::shared_ptr<Stream> stream,
                               const Address& address) {
    const auto found =
        std::find_if(connecting_.begin(), connecting_.end(),
                     [&](const Connecting& one) { return one.connector.get() == &connector; });
    const Connecting ended = std::exchange(*found, std::move(connecting_.back()));
    connecting_.pop_back();
    addresses_.prefer(address);
    try {
        // Reserve space for all connections, so that moving one between the lists cannot fail.
        idle_.reserve(connections_.size() + 1);
        dropped_.reserve(dropped_.size() + connections_.size() + 1);
        connections_.reserve(connections_.size() + 1);
        connections_.push_back(
            std::make_unique<Connection>(std::move(stream), address, ended.lastWaiting, *this));
    } catch (const std::exception&) {
        failWaiting(CommunicationStatus::OutOfMemory, added_, connections_.empty());
        return;
    }
    idle_.push_back(connections_.back().get());
    hasNew_ = true;
}

void HttpEndpoint::onConnectFailed(Connector& connector, CommunicationStatus status,
                                   const std::string& detail) {
    const auto found =
        std::find_if(connecting_.begin(), connecting_.end(),
                     [&](const Connecting& one) { return one.connector.get() == &connector; });
    const Connecting ended = std::exchange(*found, std::move(connecting_.back()));
    connecting_.pop_back();
    avoid(connector.connected());
    const std::string cause = causes_.of(status, detail);
    causes_.logOnce(cause);
    addresses_.doubt();
    failWaiting(status, ended.lastWaiting, connections_.empty(), cause);
}

/// Handles a connection that cannot be made or ended unused. If it was the only one, fails the
/// waiting requests with numbers up to `lastWaiting`; only the first of them if memory runs out.
/// Otherwise fails the first request that needs a new connection: the other connections serve the
/// rest.
void HttpEndpoint::failWaiting(CommunicationStatus status, std::uint64_t lastWaiting, bool wasOnly,
                               const std::string& cause) {
    if (!wasOnly && !waiting_.isEmpty()) {
        pauseFurther();
    }
    const bool failsAll = wasOnly && status != CommunicationStatus::OutOfMemory;
    while (auto request = waiting_.takeUpTo(lastWaiting, wasOnly)) {
        complete(std::move(request), status, cause);
        if (!failsAll) {
            return;
        }
    }
}

void HttpEndpoint::pauseFurther() {
    nextFurther_ = Clock::now() + kPauseOfFurther;
}

void HttpEndpoint::onAnswered(Connection& connection, std::unique_ptr<Request> request,
                              bool isKept) {
    --busy_;
    hasHadEarlyBytes_ = false;
    causes_.onAnswered();
    complete(std::move(request), CommunicationStatus::Ok);
    if (!isKept) {
        drop(connection);
    } else if (connection.hasReadNothing()) {
        serve(connection);
    } else {
        idle_.push_back(&connection);
    }
}

void HttpEndpoint::onBroken(Connection& connection, std::unique_ptr<Request> request,
                            CommunicationStatus status) {
    if (hasEnded(status) && (request || connection.isNew())) {
        avoid(connection.address());
    }
    if (request) {
        --busy_;
        if (hasEnded(status) && !connection.isKept() && connections_.size() > 1) {
            pauseFurther();
        }
        if (status == CommunicationStatus::Ok) {
            waiting_.addRepeat(std::move(request));
        } else {
            const std::string cause = causes_.ofTls(status, connection.tlsError());
            causes_.logOnce(cause);
            complete(std::move(request), status, cause);
        }
    } else if (connection.isNew()) {
        onNewConnectionBroken(connection, status);
    }
    drop(connection);
}

/// Fails the requests for which an unused connection was made. A connection that sent bytes before
/// any request is retried once.
void HttpEndpoint::onNewConnectionBroken(const Connection& connection, CommunicationStatus status) {
    const bool isTriedAgain =
        status == CommunicationStatus::Malformed && !std::exchange(hasHadEarlyBytes_, true);
    if (!isTriedAgain) {
        const std::string cause = causes_.ofTls(status, connection.tlsError());
        causes_.logOnce(cause);
        failWaiting(status, connection.lastWaiting(), connections_.size() == 1, cause);
    }
}

}  // namespace orvx::communication
