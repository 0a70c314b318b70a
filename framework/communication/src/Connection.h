#pragma once

#include "Address.h"
#include "AnswerReader.h"
#include "Request.h"
#include "Stream.h"

#include <algorithm>
#include <memory>
#include <string>

namespace orvx::communication {

/// An established connection. It sends one request after another and reads their answers.
///
/// For the I/O thread only.
class Connection final : private Stream::Listener {
  public:
    /// Receives the events of a connection. It may destroy the connection, but not before the call
    /// returns.
    class Owner {
      public:
        /// The answer is complete. If `isKept`, the connection can send another request.
        virtual void onAnswered(Connection& connection, std::unique_ptr<Request> request,
                                bool isKept) = 0;
        /// The connection cannot be used any more. Its request, if there is one, fails with
        /// `status`. If `status` is Ok, the request must be repeated over a new connection.
        virtual void onBroken(Connection& connection, std::unique_ptr<Request> request,
                              CommunicationStatus status) = 0;

      protected:
        ~Owner() = default;
    };

    /// Starts to read, so that the end of the connection is noticed. Throws std::bad_alloc.
    Connection(std::shared_ptr<Stream> stream, const Address& address, std::uint64_t lastWaiting,
               Owner& owner);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Whether the connection can send a request: no bytes have arrived without a request. Asks the
    /// kernel.
    bool hasNoInput() { return stream_->hasNoInput(); }
    /// Like hasNoInput(), right after onAnswered(), without asking the kernel again.
    bool hasReadNothing() const { return stream_->hasReadNothing(); }
    /// Takes the request and sends it after `head`. Throws std::bad_alloc; the request is not taken
    /// then.
    void send(std::unique_ptr<Request>& request, std::string_view head);
    /// Closes the connection and returns its request, if there is one.
    std::unique_ptr<Request> giveUp();

    /// The request that is outstanding, or null.
    const Request* request() const { return request_.get(); }
    const Address& address() const { return address_; }
    /// The number of the newest request that was waiting when this connection was started.
    std::uint64_t lastWaiting() const { return lastWaiting_; }
    /// The cause of a TLS failure for human readers; empty without a failure.
    const std::string& tlsError() const { return stream_->tlsError(); }
    /// Whether no request has been sent over this connection, and keep() was not called.
    bool isNew() const { return isNew_; }
    /// Whether no request has been sent over this connection.
    bool isUnused() const { return isUnused_; }
    /// The requests for which this connection was made do not need it. From now on it is like one
    /// over which a request was sent.
    void keep() { isNew_ = false; }
    /// Whether the last request was sent over a kept connection.
    bool isKept() const { return isRepeatable_; }
    /// The time until which an unused connection may wait for the rest of a TLS record. The first
    /// call sets it.
    Clock::time_point inputDeadline(Clock::time_point latest) {
        return inputDeadline_ = std::min(inputDeadline_, latest);
    }
    /// The connection is idle, and must send no request any more.
    void outdate() { isOutdated_ = true; }
    bool isOutdated() const { return isOutdated_; }

  private:
    void onRead() override;
    void onEnd(Stream::End end) override;
    void onWritten() override { isWriting_ = false; }
    void onWriteBroken() override { isWriteBroken_ = true; }

    void finish();
    void fail(CommunicationStatus status);
    CommunicationStatus statusOf(Stream::End end) const;

    const std::shared_ptr<Stream> stream_;
    const Address address_;
    const std::uint64_t lastWaiting_;
    Owner& owner_;
    AnswerReader reader_;
    std::unique_ptr<Request> request_;
    Clock::time_point inputDeadline_ = Clock::time_point::max();
    bool isNew_ = true;
    bool isUnused_ = true;
    bool isOutdated_ = false;
    bool isRepeatable_ = false;  // The outstanding request was sent over a kept connection.
    bool isWriting_ = false;
    bool isWriteBroken_ = false;
};

}  // namespace orvx::communication
