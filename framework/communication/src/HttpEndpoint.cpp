// The queues and the connections of one endpoint. All HEADs have the same total time-out, and so
// have all other requests: their queues are in the order of deadlines, too. Entered by the I/O
// thread only; there is no lock. A connection that is dropped lives until the next go(), for it may
// be the one that calls.

#include "HttpEndpoint.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace orvx::communication {

namespace {

// Shorter than what most names' owners allow, and long enough for a client that connects anew again
// and again not to ask each time.
constexpr std::chrono::seconds kAddressesLast(60);
// What the clock can add without an overflow: 24 days.
constexpr std::chrono::milliseconds kLongestTimeout(std::numeric_limits<int>::max());

}  // namespace

HttpEndpoint::HttpEndpoint(const EndpointContext& context,
                           std::shared_ptr<const EndpointSettings> settings)
    : context_(context), settings_(std::move(settings)) {
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
    waitUntil(request->deadline);
    const bool isHead = request->kind == Request::Kind::Head;
    (isHead ? heads_ : others_).push(std::move(request));
}

std::unique_ptr<Request> HttpEndpoint::takeOldestHead() {
    Connection* oldest = nullptr;
    for (const auto& connection : connections_) {
        const Request* const request = connection->request();
        if (request != nullptr && request->kind == Request::Kind::Head &&
            (oldest == nullptr || request->number < oldest->request()->number)) {
            oldest = connection.get();
        }
    }
    if (oldest == nullptr) {
        return heads_.pop();
    }
    auto request = oldest->giveUp();
    --busy_;
    drop(*oldest);
    return request;
}

void HttpEndpoint::go(Clock::time_point now) {
    dropped_.clear();
    if (now >= nextTime_) {
        expire(now);
    }
    serveIdle();
    if (waiting() != 0) {
        connect(now);
    }
}

// Looks at all that has a time, and notes the first that is left.
void HttpEndpoint::expire(Clock::time_point now) {
    nextTime_ = Clock::time_point::max();
    for (RequestQueue* const queue : {&heads_, &others_}) {
        expireWaiting(*queue, now);
    }
    expireAgain(now);
    for (std::size_t i = connections_.size(); i-- > 0;) {
        Connection& connection = *connections_[i];
        const Request* const request = connection.request();
        if (request == nullptr) {
            continue;
        }
        if (request->deadline > now) {
            waitUntil(request->deadline);
            continue;
        }
        end(connection.giveUp(), CommunicationStatus::TimedOut);
        --busy_;
        drop(connection);
    }
    for (std::size_t i = connecting_.size(); i-- > 0;) {
        const auto connector = connecting_[i].connector;
        if (connecting_[i].deadline <= now) {
            connector->cancel();
            onConnectFailed(*connector, CommunicationStatus::TimedOut, {});
            continue;
        }
        waitUntil(connecting_[i].deadline);
        if (connector->nextTime() <= now) {
            connector->onTime();
        }
        waitUntil(connector->nextTime());
    }
}

void HttpEndpoint::expireWaiting(RequestQueue& queue, Clock::time_point now) {
    while (!queue.isEmpty() && queue.front().deadline <= now) {
        end(queue.pop(), CommunicationStatus::TimedOut);
    }
    if (!queue.isEmpty()) {
        waitUntil(queue.front().deadline);
    }
}

// At most one for each connection, in no order.
void HttpEndpoint::expireAgain(Clock::time_point now) {
    RequestQueue all = std::move(again_);
    while (auto request = all.pop()) {
        if (request->deadline <= now) {
            end(std::move(request), CommunicationStatus::TimedOut);
        } else {
            waitUntil(request->deadline);
            again_.push(std::move(request));
        }
    }
}

void HttpEndpoint::serveIdle() {
    for (std::size_t i = idle_.size(); i-- > 0 && waiting() != 0;) {
        Connection& connection = *idle_[i];
        if (connection.isQuiet()) {
            idle_.erase(idle_.begin() + static_cast<std::ptrdiff_t>(i));
            serve(connection);
        } else if (!connection.isNew()) {
            drop(connection);
        }
        // What has come over a new one may be sessions of TLS: its read takes them, or tells that
        // it is something else.
    }
}

/// Gives it the next request, if there is one for it. It is not idle, and quiet.
void HttpEndpoint::serve(Connection& connection) {
    while (auto request = nextFor(connection)) {
        try {
            connection.send(request, headBytes_.make(*request));
            ++busy_;
            return;
        } catch (const std::exception&) {
            end(std::move(request), CommunicationStatus::OutOfMemory);
        }
    }
    idle_.push_back(&connection);
}

std::unique_ptr<Request> HttpEndpoint::nextFor(const Connection& connection) {
    for (RequestQueue* const queue : {&again_, &heads_, &others_}) {
        if (!queue->isEmpty() && (queue != &again_ || connection.isNew())) {
            return queue->pop();
        }
    }
    return nullptr;
}

void HttpEndpoint::end(std::unique_ptr<Request> request, CommunicationStatus status,
                       const std::string& cause) {
    request->status = status;
    if (status != CommunicationStatus::Ok) {
        request->answer.body = causeOf(status, cause);
    }
    context_.done.push(std::move(request));
}

void HttpEndpoint::drop(Connection& connection) {
    idle_.erase(std::remove(idle_.begin(), idle_.end(), &connection), idle_.end());
    const auto found =
        std::find_if(connections_.begin(), connections_.end(),
                     [&connection](const auto& other) { return other.get() == &connection; });
    connection.giveUp();
    dropped_.push_back(std::move(*found));  // There is room: see onConnected().
    connections_.erase(found);
}

// One at a time until one stands: who comes back after a restart is not run over.
void HttpEndpoint::connect(Clock::time_point now) {
    while (wantsConnection()) {
        beginToConnect(now);
    }
}

bool HttpEndpoint::wantsConnection() const {
    const std::size_t wanted = idle_.empty() ? waiting() : again_.size();
    const std::size_t atOnce = connections_.empty() ? 1 : settings_->config.connectionsPerEndpoint;
    return connecting_.size() < std::min(wanted, atOnce) &&
           connections_.size() + connecting_.size() < settings_->config.connectionsPerEndpoint;
}

void HttpEndpoint::beginToConnect(Clock::time_point now) {
    try {
        auto connector =
            std::make_shared<Connector>(context_.io, *settings_, tls_ ? &*tls_ : nullptr, *this);
        const auto deadline = now + std::min(settings_->config.connectTimeout, kLongestTimeout);
        connecting_.push_back({connector, deadline, added_});
        waitUntil(deadline);
        if (findAddresses()) {
            connector->start(addresses_);
            waitUntil(connector->nextTime());
        }
    } catch (const std::bad_alloc&) {
        failWaiting(CommunicationStatus::OutOfMemory, added_, false);
    } catch (const std::exception&) {
        onConnectFailed(*connecting_.back().connector, CommunicationStatus::ResolveFailed, {});
    }
}

/// Whether they are here. Otherwise they are looked up.
bool HttpEndpoint::findAddresses() {
    const EndpointSettings& settings = *settings_;
    const Origin& next = settings.proxy.host.empty() ? settings.origin : settings.proxy;
    if (Clock::now() < addressesEnd_) {
        return true;
    }
    if (isLookingUp_) {
        return false;
    }
    const std::string& socketPath = settings.config.unixSocketPath;
    auto fixed = socketPath.empty() ? ownAddresses(next.host)
                                    : std::make_optional(Addresses{unixAddress(socketPath)});
    if (fixed) {
        addresses_ = std::move(*fixed);
        setPort(addresses_, next.port);
        addressesEnd_ = Clock::time_point::max();
        return true;
    }
    context_.resolver.lookUp(next.host);
    isLookingUp_ = true;
    return false;
}

void HttpEndpoint::onResolved(const Resolver::LookUp& lookUp) {
    const EndpointSettings& settings = *settings_;
    const Origin& next = settings.proxy.host.empty() ? settings.origin : settings.proxy;
    if (!isLookingUp_ || lookUp.name != next.host) {
        return;
    }
    isLookingUp_ = false;
    auto status = lookUp.answer.status;
    try {
        addresses_ = lookUp.answer.addresses;
        setPort(addresses_, next.port);
        addressesEnd_ =
            addresses_.empty() ? Clock::time_point::min() : Clock::now() + kAddressesLast;
    } catch (const std::bad_alloc&) {
        status = CommunicationStatus::OutOfMemory;
    }
    for (std::size_t i = connecting_.size(); i-- > 0;) {
        const auto connector = connecting_[i].connector;
        if (connector->isStarted()) {
            continue;
        }
        if (status != CommunicationStatus::Ok) {
            connector->cancel();
            onConnectFailed(*connector, status, {});
        } else {
            connector->start(addresses_);
            waitUntil(connector->nextTime());
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
    // The one that answered is tried first.
    const auto answered = std::find(addresses_.begin(), addresses_.end(), address);
    if (answered != addresses_.end()) {
        std::rotate(addresses_.begin(), answered, answered + 1);
    }
    try {
        // Room for all of them, so that no list grows when one is moved there.
        idle_.reserve(connections_.size() + 1);
        dropped_.reserve(dropped_.size() + connections_.size() + 1);
        connections_.reserve(connections_.size() + 1);
        connections_.push_back(
            std::make_unique<Connection>(std::move(stream), ended.lastWaiting, *this));
    } catch (const std::exception&) {
        failWaiting(CommunicationStatus::OutOfMemory, added_, false);
        return;
    }
    idle_.push_back(connections_.back().get());
}

void HttpEndpoint::onConnectFailed(Connector& connector, CommunicationStatus status,
                                   const std::string& words) {
    const auto found =
        std::find_if(connecting_.begin(), connecting_.end(),
                     [&](const Connecting& one) { return one.connector.get() == &connector; });
    const Connecting ended = std::exchange(*found, std::move(connecting_.back()));
    connecting_.pop_back();
    const std::string cause = causeOf(status, words);
    logOnce(cause);
    if (settings_->config.unixSocketPath.empty() && addressesEnd_ != Clock::time_point::max()) {
        addressesEnd_ = Clock::time_point::min();  // They may have changed.
    }
    const bool concernsAll = connections_.empty() && status != CommunicationStatus::OutOfMemory;
    failWaiting(status, ended.lastWaiting, concernsAll, cause);
}

/// A cause that comes again before the next answer is not news.
void HttpEndpoint::logOnce(const std::string& cause) {
    if (!cause.empty() && cause != lastWords_) {
        lastWords_ = cause;
        context_.logger.logWarning(false) << cause;
    }
}

/// In words, with the endpoint. Empty where memory is lacking.
std::string HttpEndpoint::causeOf(CommunicationStatus status,
                                  const std::string& words) const noexcept {
    const Origin& next = settings_->proxy.host.empty() ? settings_->origin : settings_->proxy;
    try {
        switch (status) {
            case CommunicationStatus::TimedOut:
                return "no answer from " + settings_->origin.authority + " in time";
            case CommunicationStatus::ResolveFailed:
                return "the host " + next.host + " is not known";
            default:
                return words;
        }
    } catch (const std::bad_alloc&) {
        return {};
    }
}

/// Why TLS failed on a connection that stood. Empty otherwise, and where memory is lacking.
std::string HttpEndpoint::wordsOf(const Connection& connection,
                                  CommunicationStatus status) const noexcept {
    try {
        return status == CommunicationStatus::TlsFailed
                   ? "TLS with " + settings_->origin.authority + " failed: " + connection.words()
                   : "";
    } catch (const std::bad_alloc&) {
        return {};
    }
}

/// Those up to that one, or the first of them.
void HttpEndpoint::failWaiting(CommunicationStatus status, std::uint64_t lastWaiting,
                               bool concernsAll, const std::string& cause) {
    for (RequestQueue* const queue : {&again_, &heads_, &others_}) {
        while (!queue->isEmpty() && queue->front().number <= lastWaiting) {
            end(queue->pop(), status, cause);
            if (!concernsAll) {
                return;
            }
        }
    }
}

void HttpEndpoint::onAnswered(Connection& connection, std::unique_ptr<Request> request,
                              bool isKept) {
    --busy_;
    hasHadEarlyBytes_ = false;
    lastWords_.clear();
    end(std::move(request), CommunicationStatus::Ok);
    if (!isKept) {
        drop(connection);
    } else if (connection.isStillQuiet()) {
        serve(connection);
    } else {
        idle_.push_back(&connection);
    }
}

void HttpEndpoint::onBroken(Connection& connection, std::unique_ptr<Request> request,
                            CommunicationStatus status) {
    if (request) {
        --busy_;
        if (status == CommunicationStatus::Ok) {
            again_.push(std::move(request));
        } else {
            const std::string cause = wordsOf(connection, status);
            logOnce(cause);
            end(std::move(request), status, cause);
        }
    } else if (connection.isNew()) {
        onUseless(connection, status);
    }
    drop(connection);
}

/// A new connection was of no use to those for which it was made. One that had something to say
/// before it was asked is given a second chance.
void HttpEndpoint::onUseless(const Connection& connection, CommunicationStatus status) {
    const bool isTriedAgain =
        status == CommunicationStatus::Malformed && !std::exchange(hasHadEarlyBytes_, true);
    if (!isTriedAgain) {
        const std::string cause = wordsOf(connection, status);
        logOnce(cause);
        failWaiting(status, connection.madeFor(), connections_.size() == 1, cause);
    }
}

}  // namespace orvx::communication
