// Sends one request at a time over a stream. A read is always outstanding: bytes that arrive
// without a request, or after its answer, end the connection.
// Entered by the I/O thread only; there is no lock. No exception leaves the callbacks of the
// stream.

#include "Connection.h"

#include <new>
#include <utility>

namespace orvx::communication {

Connection::Connection(std::shared_ptr<Stream> stream, const Address& address,
                       std::uint64_t lastWaiting, Owner& owner)
    : stream_(std::move(stream)), address_(address), lastWaiting_(lastWaiting), owner_(owner) {
    stream_->setListener(this);
    stream_->read();
}

Connection::~Connection() {
    stream_->close();
}

void Connection::send(std::unique_ptr<Request>& request, std::string_view head) {
    const HttpConfig& config = request->settings->config;
    const bool isHead = request->kind == Request::Kind::Head;
    request->answer = {};
    reader_.begin(request->answer, {config.maxHeaderBytes, config.maxBodyBytes, isHead});
    const auto written = stream_->write(head, {request->content, request->length});
    isWriting_ = written == Stream::Written::Later;
    isWriteBroken_ = written == Stream::Written::Broken;
    isRepeatable_ = !std::exchange(isNew_, false);
    isUnused_ = false;
    ++request->attempts;
    request_ = std::move(request);
}

std::unique_ptr<Request> Connection::giveUp() {
    stream_->close();
    return std::move(request_);
}

void Connection::onRead() {
    if (!request_) {
        fail(CommunicationStatus::Malformed);  // Bytes without a request.
        return;
    }
    try {
        switch (reader_.take(stream_->bytes())) {
            case AnswerReader::Progress::More:
                stream_->read();
                return;
            case AnswerReader::Progress::Done:
                finish();
                return;
            case AnswerReader::Progress::Refused:
                fail(reader_.refusal());
        }
    } catch (const std::bad_alloc&) {
        fail(CommunicationStatus::OutOfMemory);
    }
}

void Connection::finish() {
    bool isKept = reader_.isConnectionKept() && stream_->bytes().view().empty() && !isWriting_ &&
                  !isWriteBroken_;
    try {
        if (isKept) {
            stream_->read();
        }
    } catch (const std::bad_alloc&) {
        isKept = false;
    }
    owner_.onAnswered(*this, std::move(request_), isKept);
}

void Connection::onEnd(Stream::End end) {
    const bool isWhole =
        request_ && end == Stream::End::Orderly && reader_.hasBegun() && reader_.finish();
    if (isWhole) {
        owner_.onAnswered(*this, std::move(request_), false);
    } else {
        fail(statusOf(end));
    }
}

CommunicationStatus Connection::statusOf(Stream::End end) const {
    if (end == Stream::End::OutOfMemory) {
        return CommunicationStatus::OutOfMemory;
    }
    if (request_ && reader_.hasBegun()) {
        return CommunicationStatus::CutShort;
    }
    if (request_ && isRepeatable_) {
        return CommunicationStatus::Ok;
    }
    return end == Stream::End::TlsFailed ? CommunicationStatus::TlsFailed
           : isWriteBroken_              ? CommunicationStatus::SendFailed
                                         : CommunicationStatus::ReceiveFailed;
}

void Connection::fail(CommunicationStatus status) {
    owner_.onBroken(*this, std::move(request_), status);
}

}  // namespace orvx::communication
