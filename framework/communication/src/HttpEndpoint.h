#pragma once

#include "Address.h"
#include "Connection.h"
#include "Connector.h"
#include "Request.h"
#include "RequestHead.h"
#include "Resolver.h"
#include "TlsClient.h"

#include <orvx/utility/StreamingLogger.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvx::communication {

/// What the endpoints of an engine work with.
struct EndpointContext {
    boost::asio::io_context& io;
    Resolver& resolver;
    const utility::StreamingLogger& logger;
    RequestQueue& done;  ///< Requests with their outcome.
};

/// The requests of one session within one engine, and its connections. A request waits until one
/// of a bounded number of connections can take it.
///
/// For the I/O thread only. Nothing throws where it does not say so.
class HttpEndpoint final : public Connection::Owner, public Connector::Owner {
  public:
    /// The context must outlive it. Throws std::bad_alloc.
    HttpEndpoint(const EndpointContext& context, std::shared_ptr<const EndpointSettings> settings);
    ~HttpEndpoint();

    void add(std::unique_ptr<Request> request);
    /// The HEAD that is outstanding longest, waiting or under way; null when there is none.
    std::unique_ptr<Request> takeOldestHead();
    /// The answer to a look-up, of this endpoint's name or another one.
    void onResolved(const Resolver::LookUp& lookUp);

    /// Ends what has taken too long, gives requests to connections, and makes connections for those
    /// that are left.
    void go(Clock::time_point now);
    /// When to go() again at the latest; the end of time when there is nothing to wait for.
    Clock::time_point nextTime() const { return nextTime_; }

    /// Nothing will be added any more.
    void retire() { isRetired_ = true; }
    /// Whether it can go.
    bool isSpent() const { return isRetired_ && waiting() == 0 && busy_ == 0; }

  private:
    struct Connecting {
        std::shared_ptr<Connector> connector;
        Clock::time_point deadline;
        std::uint64_t lastWaiting;  // The number of the last request that waited when it began.
    };
    using Connections = std::vector<std::unique_ptr<Connection>>;

    std::size_t waiting() const { return again_.size() + heads_.size() + others_.size(); }
    void waitUntil(Clock::time_point time) { nextTime_ = std::min(nextTime_, time); }
    void expire(Clock::time_point now);
    void expireWaiting(RequestQueue& queue, Clock::time_point now);
    void expireAgain(Clock::time_point now);

    void serve(Connection& connection);
    void serveIdle();
    std::unique_ptr<Request> nextFor(const Connection& connection);
    void end(std::unique_ptr<Request> request, CommunicationStatus status,
             const std::string& cause = {});
    void drop(Connection& connection);

    void connect(Clock::time_point now);
    void beginToConnect(Clock::time_point now);
    bool findAddresses();
    bool wantsConnection() const;
    void failWaiting(CommunicationStatus status, std::uint64_t lastWaiting, bool concernsAll,
                     const std::string& cause = {});
    void logOnce(const std::string& cause);
    std::string wordsOf(const Connection& connection, CommunicationStatus status) const noexcept;
    std::string causeOf(CommunicationStatus status, const std::string& words) const noexcept;
    void onUseless(const Connection& connection, CommunicationStatus status);

    void onAnswered(Connection& connection, std::unique_ptr<Request> request, bool isKept) override;
    void onBroken(Connection& connection, std::unique_ptr<Request> request,
                  CommunicationStatus status) override;
    void onConnected(Connector& connector, std::shared_ptr<Stream> stream,
                     const Address& address) override;
    void onConnectFailed(Connector& connector, CommunicationStatus status,
                         const std::string& words) override;

    const EndpointContext context_;
    const std::shared_ptr<const EndpointSettings> settings_;
    RequestHeads headBytes_;

    std::uint64_t added_ = 0;
    RequestQueue again_;  // Over a new connection only.
    RequestQueue heads_;
    RequestQueue others_;

    std::optional<TlsClient> tls_;  // Before the connections, which refer to it.
    Connections connections_;
    std::vector<Connection*> idle_;
    std::size_t busy_ = 0;
    Connections dropped_;  // In a call of theirs, maybe.
    std::vector<Connecting> connecting_;

    Addresses addresses_;
    Clock::time_point addressesEnd_ = Clock::time_point::min();
    bool isLookingUp_ = false;
    std::string lastWords_;  // Of the last failure, so that they are logged once.
    Clock::time_point nextTime_ = Clock::time_point::max();
    bool hasHadEarlyBytes_ = false;
    bool isRetired_ = false;
};

}  // namespace orvx::communication
