// A stream over TLS. Records are sent from a buffer that the stream owns, because a cancelled
// operation may still read it.
// Entered by the I/O thread only; there is no lock.

#include "TlsStream.h"

#include "TlsClient.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>

#include <algorithm>
#include <new>

namespace orvx::communication {

namespace asio = boost::asio;
namespace ssl = asio::ssl;
using boost::system::error_code;

namespace {

constexpr std::size_t kRecord = 16 * 1024;

Stream::End endOf(const error_code& error) {
    if (error == asio::error::eof) {
        return Stream::End::Orderly;
    }
    const bool isOfTls = error.category() == asio::error::get_ssl_category();
    return isOfTls ? Stream::End::TlsFailed : Stream::End::Broken;
}

}  // namespace

// Marks the connection as shut down: OpenSSL does not resume a session whose connection ended
// without close_notify.
TlsStream::~TlsStream() {
    SSL_set_shutdown(stream_.native_handle(), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
}

void TlsStream::handshake(HandshakeHandler handler) {
    handshakeHandler_ = std::move(handler);
    stream_.async_handshake(ssl::stream_base::client,
                            [self = shared_from_this()](const error_code& error) {
                                if (auto told = std::exchange(self->handshakeHandler_, nullptr)) {
                                    told(error);
                                }
                            });
}

void TlsStream::read() {
    bytes_.prepare();
    stream_.async_read_some(
        asio::buffer(bytes_.space(), bytes_.spaceSize()),
        [self = shared_from_this()](const error_code& error, std::size_t count) {
            self->onRead(error, count);
        });
}

void TlsStream::onRead(const error_code& error, std::size_t count) {
    if (listener_ == nullptr) {
        return;
    }
    if (error) {
        End end = endOf(error);
        try {
            tlsError_ = end == End::TlsFailed ? TlsClient::handshakeError(native(), error) : "";
        } catch (const std::bad_alloc&) {
            end = End::OutOfMemory;
        }
        listener_->onEnd(end);
        return;
    }
    bytes_.received(count);
    listener_->onRead();
}

// A partial TLS record counts as input, because it may be part of an answer.
bool TlsStream::hasNoInput() {
    SSL* const native = stream_.native_handle();
    return hasReadNothing() && SSL_has_pending(native) == 0 &&
           BIO_ctrl_pending(SSL_get_rbio(native)) == 0 &&
           communication::hasNoInput(stream_.next_layer());
}

Stream::Written TlsStream::write(std::string_view head, std::string_view body) {
    out_.reserve(kRecord);
    head_.assign(head);
    body_ = body;
    out_.clear();
    written_ = 0;
    writeNext();
    return Written::Later;
}

void TlsStream::writeNext() {
    if (written_ == out_.size()) {
        written_ = 0;
        const std::size_t ofHead = std::min(head_.size(), kRecord);
        out_.assign(head_.data(), head_.data() + ofHead);
        head_.erase(0, ofHead);
        const std::size_t ofBody = std::min(body_.size(), kRecord - ofHead);
        out_.insert(out_.end(), body_.data(), body_.data() + ofBody);
        body_.remove_prefix(ofBody);
    }
    stream_.async_write_some(
        asio::buffer(out_.data() + written_, out_.size() - written_),
        [self = shared_from_this()](const error_code& error, std::size_t count) {
            self->onWritten(error, count);
        });
}

void TlsStream::onWritten(const error_code& error, std::size_t count) {
    if (listener_ == nullptr) {
        return;
    }
    if (error) {
        error_code ignored;
        stream_.next_layer().shutdown(Socket::shutdown_both, ignored);
        listener_->onWriteBroken();
        return;
    }
    written_ += count;
    if (written_ < out_.size() || !head_.empty() || !body_.empty()) {
        try {
            writeNext();
        } catch (const std::bad_alloc&) {
            listener_->onEnd(End::OutOfMemory);
        }
        return;
    }
    listener_->onWritten();
}

// The handler of a read that has ended already may still run afterwards.
void TlsStream::close() noexcept {
    TlsClient::detach(*stream_.native_handle());
    listener_ = nullptr;
    handshakeHandler_ = nullptr;
    error_code ignored;
    stream_.next_layer().close(ignored);
}

}  // namespace orvx::communication
