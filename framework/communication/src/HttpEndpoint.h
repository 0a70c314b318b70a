#pragma once

#include "Connection.h"
#include "Connector.h"
#include "EndpointAddresses.h"
#include "FailureCauses.h"
#include "Request.h"
#include "RequestHead.h"
#include "Resolver.h"
#include "TlsClient.h"
#include "WaitingRequests.h"

#include <orvx/utility/StreamingLogger.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvx::communication {

/// Objects that all endpoints of an engine share.
struct EndpointContext {
    boost::asio::io_context& io;
    Resolver& resolver;
    const utility::StreamingLogger& logger;
    RequestQueue& done;  ///< Completed requests.
};

/// The requests of one session within one engine, and its connections. A request waits until one of
/// a bounded number of connections is free.
///
/// For the I/O thread only. Functions do not throw unless stated.
class HttpEndpoint final : public Connection::Owner, public Connector::Owner {
  public:
    /// The context must outlive it. Throws std::bad_alloc.
    HttpEndpoint(const EndpointContext& context, std::shared_ptr<const EndpointSettings> settings);
    ~HttpEndpoint();

    void add(std::unique_ptr<Request> request);
    /// Removes and returns the HEAD that has been outstanding longest, waiting or sent; null if
    /// there is none.
    std::unique_ptr<Request> takeOldestHead();
    /// The result of a look-up, for this endpoint's name or for another name.
    void onResolved(const Resolver::LookUp& lookUp);

    /// Completes requests that have timed out, sends waiting requests, and starts connections for
    /// the remaining ones.
    void process(Clock::time_point now);
    /// The time at which process() must be called again; the maximum if there is nothing to wait
    /// for.
    Clock::time_point nextTime() const { return nextTime_; }

    /// No more requests will be added.
    void retire() { isRetired_ = true; }
    /// Whether this object can be destroyed.
    bool isFinished() const { return isRetired_ && waiting_.isEmpty() && busy_ == 0; }

  private:
    struct Connecting {
        std::shared_ptr<Connector> connector;
        Clock::time_point deadline;
        std::uint64_t
            lastWaiting;  // The number of the newest request that was waiting at the start.
    };
    using Connections = std::vector<std::unique_ptr<Connection>>;

    void wakeAt(Clock::time_point time) { nextTime_ = std::min(nextTime_, time); }
    void expire(Clock::time_point now);

    void serve(Connection& connection);
    void serveIdle(Clock::time_point now);
    void send(Connection& connection, std::unique_ptr<Request>& request,
              const std::string& head) noexcept;
    void complete(std::unique_ptr<Request> request, CommunicationStatus status,
                  const std::string& cause = {});
    void drop(Connection& connection);

    void connect(Clock::time_point now);
    void startConnecting(Clock::time_point now);
    void avoid(const Address& address);
    bool needsConnection(Clock::time_point now);
    void failWaiting(CommunicationStatus status, std::uint64_t lastWaiting, bool wasOnly,
                     const std::string& cause = {});
    void pauseFurther();
    void onNewConnectionBroken(const Connection& connection, CommunicationStatus status);

    void onAnswered(Connection& connection, std::unique_ptr<Request> request, bool isKept) override;
    void onBroken(Connection& connection, std::unique_ptr<Request> request,
                  CommunicationStatus status) override;
    void onConnected(Connector& connector, std::shared_ptr<Stream> stream,
                     const Address& address) override;
    void onConnectFailed(Connector& connector, CommunicationStatus status,
                         const std::string& detail) override;

    const EndpointContext context_;
    const std::shared_ptr<const EndpointSettings> settings_;
    RequestHeads headBytes_;

    std::uint64_t added_ = 0;
    WaitingRequests waiting_;

    std::optional<TlsClient> tls_;  // Declared before the connections, which refer to it.
    Connections connections_;
    std::vector<Connection*> idle_;
    std::size_t busy_ = 0;
    Connections dropped_;  // Destroyed by the next process().
    std::vector<Connecting> connecting_;

    EndpointAddresses addresses_;
    FailureCauses causes_;
    // Before this time no connection is made for requests that another connection can serve.
    Clock::time_point nextFurther_ = Clock::time_point::min();
    Clock::time_point nextTime_ = Clock::time_point::max();
    bool hasNew_ = false;  // Whether a connection may be both idle and new.
    bool hasHadEarlyBytes_ = false;
    bool isRetired_ = false;
};

}  // namespace orvx::communication
