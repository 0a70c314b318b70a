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

/// Makes one connection: to the address that answers first (RFC 8305), through a proxy if there is
/// one, and with TLS. Its operations keep it alive; its owner is told nothing after cancel().
///
/// For the I/O thread only.
class Connector final : public std::enable_shared_from_this<Connector>, private Stream::Listener {
  public:
    class Owner {
      public:
        /// It stands. The address is the one that answered.
        virtual void onConnected(Connector& connector, std::shared_ptr<Stream> stream,
                                 const Address& address) = 0;
        /// `words` say more of the failure where more is known; empty otherwise.
        virtual void onConnectFailed(Connector& connector, CommunicationStatus status,
                                     const std::string& words) = 0;

      protected:
        ~Owner() = default;
    };

    /// All must outlive it, or its cancel(). Without `tls` none is spoken.
    Connector(boost::asio::io_context& io, const EndpointSettings& settings, TlsClient* tls,
              Owner& owner);
    ~Connector();
    Connector(const Connector&) = delete;
    Connector& operator=(const Connector&) = delete;

    /// Begins with the first address. The owner may be told before it returns.
    void start(Addresses addresses);
    bool isStarted() const { return !addresses_.empty(); }
    /// When onTime() has to be called; the end of time when it need not.
    std::chrono::steady_clock::time_point nextTime() const { return nextAttempt_; }
    void onTime();
    void cancel() noexcept;

  private:
    struct Attempt;

    void startAttempts();
    bool startAttempt(const Address& address);
    void onAttemptEnd(Attempt& attempt, const boost::system::error_code& error);
    void goOn();
    void openTunnel();
    void onTunnelAnswer();
    void startTls();
    void onHandshake(const boost::system::error_code& error);
    void succeed(std::shared_ptr<Stream> stream);
    void fail(CommunicationStatus status, const std::string& words = {});
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
    std::size_t next_ = 0;  // Of the addresses, to be tried.
    std::chrono::steady_clock::time_point nextAttempt_ =
        std::chrono::steady_clock::time_point::max();
    std::deque<Attempt> attempts_;
    std::size_t failedAttempts_ = 0;
    boost::system::error_code lastError_;  // Of the last attempt that failed, and its address.
    Address lastFailed_{};
    Address connected_{};

    std::shared_ptr<PlainStream> plain_;
    std::shared_ptr<TlsStream> secure_;
    std::string tunnelRequest_;
    Answer tunnelAnswer_;
    AnswerReader reader_;
};

}  // namespace orvx::communication
