// A stream over a plain socket. Sends at once, and waits only for the bytes that the kernel does
// not take.
// Entered by the I/O thread only; there is no lock.

#include "PlainStream.h"

#include <sys/socket.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>

#include <array>
#include <cerrno>

namespace orvx::communication {

namespace asio = boost::asio;
using boost::system::error_code;

bool hasNoInput(Socket& socket) noexcept {
    char ignored = 0;
    return ::recv(socket.native_handle(), &ignored, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
           (errno == EAGAIN || errno == EWOULDBLOCK);
}

void PlainStream::read() {
    bytes_.prepare();
    socket_.async_read_some(
        asio::buffer(bytes_.space(), bytes_.spaceSize()),
        [self = shared_from_this()](const error_code& error, std::size_t count) {
            self->onRead(error, count);
        });
}

void PlainStream::onRead(const error_code& error, std::size_t count) {
    if (listener_ == nullptr) {
        return;
    }
    if (error) {
        listener_->onEnd(error == asio::error::eof ? End::Orderly : End::Broken);
        return;
    }
    bytes_.received(count);
    listener_->onRead();
}

bool PlainStream::hasNoInput() {
    return hasReadNothing() && communication::hasNoInput(socket_);
}

Stream::Written PlainStream::write(std::string_view head, std::string_view body) {
    const std::array<asio::const_buffer, 2> both{asio::buffer(head.data(), head.size()),
                                                 asio::buffer(body.data(), body.size())};
    error_code error;
    const std::size_t sent = socket_.send(both, 0, error);
    if (error && error != asio::error::would_block) {
        // The outstanding read delivers the bytes that the peer sent before, and ends then.
        socket_.shutdown(Socket::shutdown_both, error);
        return Written::Broken;
    }
    if (sent == head.size() + body.size()) {
        return Written::All;
    }
    head_.assign(head.substr(std::min(sent, head.size())));
    body_ = body.substr(sent - std::min(sent, head.size()));
    writeRest();
    return Written::Later;
}

void PlainStream::writeRest() {
    const std::string_view next = head_.empty() ? body_ : head_;
    socket_.async_write_some(
        asio::buffer(next.data(), next.size()),
        [self = shared_from_this()](const error_code& error, std::size_t count) {
            self->onWritten(error, count);
        });
}

void PlainStream::onWritten(const error_code& error, std::size_t count) {
    if (listener_ == nullptr) {
        return;
    }
    if (error) {
        error_code ignored;
        socket_.shutdown(Socket::shutdown_both, ignored);
        listener_->onWriteBroken();
        return;
    }
    if (head_.empty()) {
        body_.remove_prefix(count);
    } else {
        head_.erase(0, count);
    }
    if (!head_.empty() || !body_.empty()) {
        try {
            writeRest();
        } catch (const std::bad_alloc&) {
            listener_->onEnd(End::OutOfMemory);
        }
        return;
    }
    listener_->onWritten();
}

void PlainStream::close() noexcept {
    listener_ = nullptr;
    error_code ignored;
    socket_.close(ignored);
}

}  // namespace orvx::communication
