#pragma once

#include "Address.h"
#include "AnswerReader.h"
#include "Stream.h"
#include "TlsClient.h"

#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>

#include <chrono>
#include <deque>
#include <memory>
#include <string>

namespace orvx::communication {

class PlainStream;
class TlsStream;

/// Makes one connection: to the address that answers first (RFC 8305), through the proxy if there
/// is one, and with TLS. Its pending operations keep it alive. After cancel() its owner receives no
/// event.
///
/// For the I/O thread only.
class Connector final : public std::enable_shared_from_this<Connector>, private Stream::Listener {
  public:
    class Owner {
      public:
        /// The connection is established to `address`.
        virtual void onConnected(Connector& connector, std::shared_ptr<Stream> stream,
                                 const Address& address) = 0;
        /// No connection could be made. `detail` is the cause for human readers; empty if the
        /// status says all that is known.
        virtual void onConnectFailed(Connector& connector, CommunicationStatus status,
                                     const std::string& detail) = 0;

      protected:
        ~Owner() = default;
    };

    /// All arguments must outlive this object or its cancel(). Without `tls` the connection is
    /// plain.
    Connector(boost::asio::io_context& io, const EndpointSettings& settings, TlsClient* tls,
              Owner& owner);
    ~Connector();
    Connector(const Connector&) = delete;
    Connector& operator=(const Connector&) = delete;

    /// Starts with the first address. The owner may be called before start() returns.
    void start(const Addresses& addresses);
    bool isStarted() const { return !addresses_.empty(); }
    /// The address that accepted the connection; equal to no address before.
    const Address& connected() const { return connected_; }
    /// The time at which onTime() must be called; the maximum if no call is needed.
    std::chrono::steady_clock::time_point nextTime() const { return nextAttempt_; }
    void onTime();
    void cancel() noexcept;
    /// Why no server has accepted the connection so far. Empty if that is not known, after the
    /// connection was accepted, and if memory runs out.
    std::string refusal() const noexcept;

  private:
    struct Attempt;

    void startAttempts();
    std::chrono::milliseconds stagger() const;
    bool startAttempt(const Address& address);
    void countFailed(const Attempt& attempt, const boost::system::error_code& error);
    void onAttemptEnd(Attempt& attempt, const boost::system::error_code& status);
    void continueSetup();
    void openTunnel();
    void onTunnelAnswer();
    void startTls();
    void onHandshake(const boost::system::error_code& error);
    void succeed(std::shared_ptr<Stream> stream);
    void fail(CommunicationStatus status, const std::string& detail = {});
    template <typename Step>
    void guarded(const Step& step) noexcept;

    void onRead() override;
    void onEnd(Stream::End end) override;
    void onWritten() override {}
    void onWriteBroken() override {}

    boost::asio::io_context& io_;
    const EndpointSettings& settings_;
    TlsClient* const tls_;
    Owner* owner_;

    Addresses addresses_;
    std::size_t next_ = 0;  // Index of the address to try next.
    std::chrono::steady_clock::time_point nextAttempt_ =
        std::chrono::steady_clock::time_point::max();
    std::deque<Attempt> attempts_;
    std::size_t failedAttempts_ = 0;
    boost::system::error_code lastError_;  // The error of the last attempt that failed.
    Address lastFailed_{};
    Address connected_{};

    std::shared_ptr<PlainStream> plain_;
    std::shared_ptr<TlsStream> secure_;
    std::string tunnelRequest_;
    Answer tunnelAnswer_;
    AnswerReader reader_;
};

}  // namespace orvx::communication
