// From addresses to a connection that stands.
// Entered by the I/O thread only; there is no lock. No exception leaves it: what needs memory and
// does not get it fails the connection.

#include "Connector.h"

#include "PlainStream.h"
#include "RequestHead.h"
#include "TlsStream.h"

#include <orvx/utility/OrvFoundationException.h>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <new>

namespace orvx::communication {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

namespace {

// The delay of RFC 8305, section 5.
constexpr std::chrono::milliseconds kStagger(250);
// What a proxy has to say before a tunnel.
constexpr std::size_t kMostTunnelHeader = 16 * 1024;

std::string whyFailed(const error_code& error, const Address& address) {
    if (!error) {
        return {};
    }
    return error == asio::error::connection_refused
               ? "connection refused by " + toText(address)
               : "no connection to " + toText(address) + ": " + error.message();
}

}  // namespace

struct Connector::Attempt {
    Attempt(asio::io_context& io, const Address& to) : socket(io), address(to) {}
    Socket socket;
    Address address;
};

Connector::Connector(asio::io_context& io, const EndpointSettings& settings, TlsClient* tls,
                     Owner& owner)
    : io_(io), settings_(settings), tls_(tls), owner_(&owner) {}

Connector::~Connector() = default;

/// A step that may lack memory, or that throws what an operation otherwise reports.
template <typename Step>
void Connector::guarded(const Step& step) noexcept {
    try {
        step();
    } catch (const std::bad_alloc&) {
        fail(CommunicationStatus::OutOfMemory);
    } catch (const std::exception& error) {
        fail(tls_ != nullptr ? CommunicationStatus::TlsFailed : CommunicationStatus::ConnectFailed,
             error.what());
    }
}

void Connector::start(Addresses addresses) {
    addresses_ = std::move(addresses);
    startAttempts();
}

void Connector::onTime() {
    startAttempts();
}

/// The next one, or, as long as they fail at once, those after it.
void Connector::startAttempts() {
    guarded([this] {
        while (next_ < addresses_.size()) {
            const bool isUnderWay = startAttempt(addresses_[next_++]);
            nextAttempt_ =
                next_ < addresses_.size() ? Clock::now() + kStagger : Clock::time_point::max();
            if (isUnderWay) {
                return;
            }
        }
        if (failedAttempts_ == addresses_.size()) {
            fail(CommunicationStatus::ConnectFailed, whyFailed(lastError_, lastFailed_));
        }
    });
}

bool Connector::startAttempt(const Address& address) {
    const int family = address.storage.ss_family;
    attempts_.emplace_back(io_, address);
    Attempt& attempt = attempts_.back();
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) {
        ++failedAttempts_;
        return false;
    }
    error_code error;
    try {
        attempt.socket.assign(asio::generic::stream_protocol(family, 0), descriptor, error);
    } catch (...) {
        ::close(descriptor);
        throw;
    }
    if (error) {
        ::close(descriptor);
        ++failedAttempts_;
        return false;
    }
    attempt.socket.non_blocking(true, error);
    if (family != AF_UNIX) {
        const int on = 1;
        ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    attempt.socket.async_connect(
        asio::generic::stream_protocol::endpoint(&attempt.address.storage, attempt.address.size),
        [self = shared_from_this(), &attempt](const error_code& result) {
            self->onAttemptEnd(attempt, result);
        });
    return true;
}

void Connector::onAttemptEnd(Attempt& attempt, const error_code& error) {
    if (owner_ == nullptr || plain_) {
        return;
    }
    if (error) {
        error_code ignored;
        attempt.socket.close(ignored);
        ++failedAttempts_;
        lastError_ = error;
        lastFailed_ = attempt.address;
        startAttempts();
        return;
    }
    guarded([this, &attempt] {
        connected_ = attempt.address;
        nextAttempt_ = Clock::time_point::max();
        plain_ = std::make_shared<PlainStream>(std::move(attempt.socket));
        for (Attempt& other : attempts_) {
            error_code ignored;
            other.socket.close(ignored);
        }
        goOn();
    });
}

void Connector::goOn() {
    if (tls_ == nullptr) {
        succeed(plain_);
    } else if (!settings_.proxy.host.empty()) {
        openTunnel();
    } else {
        startTls();
    }
}

void Connector::openTunnel() {
    tunnelRequest_ = tunnelHead(settings_);
    reader_.begin(tunnelAnswer_, {kMostTunnelHeader, 0, true});
    plain_->setListener(this);
    plain_->read();
    if (plain_->write(tunnelRequest_, {}) == Stream::Written::Broken) {
        return;  // The read ends.
    }
}

void Connector::onRead() {
    guarded([this] {
        switch (reader_.take(plain_->bytes())) {
            case AnswerReader::Progress::More:
                plain_->read();
                return;
            case AnswerReader::Progress::Done:
                onTunnelAnswer();
                return;
            case AnswerReader::Progress::Refused:
                fail(CommunicationStatus::ConnectFailed);
        }
    });
}

// What follows its answer is not what we have asked for: nothing was said to the server.
void Connector::onTunnelAnswer() {
    const bool isOpen = tunnelAnswer_.statusCode / 100 == 2 && plain_->bytes().view().empty();
    if (isOpen) {
        plain_->setListener(nullptr);
        startTls();
    } else {
        fail(CommunicationStatus::ConnectFailed,
             "the proxy answered HTTP " + std::to_string(tunnelAnswer_.statusCode));
    }
}

void Connector::onEnd(Stream::End end) {
    fail(end == Stream::End::OutOfMemory ? CommunicationStatus::OutOfMemory
                                         : CommunicationStatus::ConnectFailed);
}

void Connector::startTls() {
    secure_ = std::make_shared<TlsStream>(plain_->release(), tls_->context());
    tls_->prepare(secure_->native());
    secure_->handshake(
        [self = shared_from_this()](const error_code& error) { self->onHandshake(error); });
}

void Connector::onHandshake(const error_code& error) {
    if (error) {
        guarded([this, &error] {
            fail(CommunicationStatus::TlsFailed,
                 "TLS with " + settings_.origin.authority +
                     " failed: " + TlsClient::whatFailed(secure_->native(), error));
        });
    } else {
        succeed(secure_);
    }
}

void Connector::succeed(std::shared_ptr<Stream> stream) {
    plain_.reset();
    secure_.reset();
    if (Owner* const owner = std::exchange(owner_, nullptr)) {
        owner->onConnected(*this, std::move(stream), connected_);
    }
}

void Connector::fail(CommunicationStatus status, const std::string& words) {
    Owner* const owner = owner_;
    cancel();
    if (owner != nullptr) {
        owner->onConnectFailed(*this, status, words);
    }
}

void Connector::cancel() noexcept {
    owner_ = nullptr;
    nextAttempt_ = Clock::time_point::max();
    for (Attempt& attempt : attempts_) {
        error_code ignored;
        attempt.socket.close(ignored);
    }
    if (plain_) {
        plain_->close();
    }
    if (secure_) {
        secure_->close();
    }
}

}  // namespace orvx::communication
