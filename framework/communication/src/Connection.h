#pragma once

#include "AnswerReader.h"
#include "Request.h"
#include "Stream.h"

#include <memory>
#include <string>

namespace orvx::communication {

/// A connection that stands: one request after another over it, each with its answer.
///
/// For the I/O thread only.
class Connection final : private Stream::Listener {
  public:
    /// Is told what happens; it may destroy the connection then, but not before the call returns.
    class Owner {
      public:
        /// The answer is whole. The connection can take another request if `isKept`.
        virtual void onAnswered(Connection& connection, std::unique_ptr<Request> request,
                                bool isKept) = 0;
        /// The connection is of no use any more. Its request, if it had one, fails so, or has to be
        /// repeated over a new connection when that is Ok.
        virtual void onBroken(Connection& connection, std::unique_ptr<Request> request,
                              CommunicationStatus status) = 0;

      protected:
        ~Owner() = default;
    };

    /// Begins to read, so that an end is noticed. Throws std::bad_alloc.
    Connection(std::shared_ptr<Stream> stream, std::uint64_t madeFor, Owner& owner);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Whether a request can be sent: nothing has come that nobody asked for.
    bool isQuiet() { return stream_->isQuiet(); }
    /// The same for what onAnswered() has just told of, without looking again.
    bool isStillQuiet() const { return stream_->hasReadNothing(); }
    /// Takes the request and sends it, after the head that was made of it. Throws std::bad_alloc,
    /// and has not taken it then.
    void send(std::unique_ptr<Request>& request, std::string_view head);
    /// Its request as it is. The connection is of no use any more.
    std::unique_ptr<Request> giveUp();

    /// Null when there is none under way.
    const Request* request() const { return request_.get(); }
    /// The number of the last request that waited when it was begun.
    std::uint64_t madeFor() const { return madeFor_; }
    /// Why TLS failed, for people; empty before.
    const std::string& words() const { return stream_->words(); }
    /// Whether it has had no request.
    bool isNew() const { return isNew_; }

  private:
    void onRead() override;
    void onEnd(Stream::End end) override;
    void onWritten() override { isWriting_ = false; }
    void onWriteBroken() override { isWriteBroken_ = true; }

    void finish();
    void fail(CommunicationStatus status);
    CommunicationStatus statusOf(Stream::End end) const;

    const std::shared_ptr<Stream> stream_;
    const std::uint64_t madeFor_;
    Owner& owner_;
    AnswerReader reader_;
    std::unique_ptr<Request> request_;
    bool isNew_ = true;
    bool isRepeatable_ = false;  // The request's: its connection was kept.
    bool isWriting_ = false;
    bool isWriteBroken_ = false;
};

}  // namespace orvx::communication
