// Turns a list of addresses into an established connection.
// Entered by the I/O thread only; there is no lock. No exception leaves this file: a step that runs
// out of memory fails the connection.

#include "Connector.h"

#include "PlainStream.h"
#include "RequestHead.h"
#include "TlsStream.h"

#include <orvx/utility/OrvFoundationException.h>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>

namespace orvx::communication {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

namespace {

// The longest delay between two attempts (RFC 8305, section 5).
constexpr std::chrono::milliseconds kStagger(250);
// The delay between two attempts at a Unix domain socket whose server accepts no connections.
constexpr std::chrono::milliseconds kRetry(50);
// The limit for a proxy's answer to CONNECT.
constexpr std::size_t kMostTunnelHeader = 16 * 1024;

/// Sends small requests at once. Ends a connection half a minute after the last segment of its
/// peer: a machine that lost its power, or a firewall that forgot the connection, sends no FIN. A
/// failure is ignored, because a connection works without these options, too.
void setTcpOptions(int descriptor) {
    struct Option {
        int level;
        int name;
        int value;
    };
    for (const Option& option :
         {Option{IPPROTO_TCP, TCP_NODELAY, 1}, Option{SOL_SOCKET, SO_KEEPALIVE, 1},
          Option{IPPROTO_TCP, TCP_KEEPIDLE, 15}, Option{IPPROTO_TCP, TCP_KEEPINTVL, 5},
          Option{IPPROTO_TCP, TCP_KEEPCNT, 3}}) {
        ::setsockopt(descriptor, option.level, option.name, &option.value, sizeof option.value);
    }
}

/// The result of an attempt. Newer versions of Asio take the full backlog of a Unix domain socket
/// for a connection.
error_code resultOf(Socket& socket, const Address& address, error_code result) {
    if (!result && address.storage.ss_family == AF_UNIX) {
        socket.remote_endpoint(result);
    }
    return result;
}

/// Whether a Unix domain socket's backlog is full, for which connect() has EAGAIN and Asio another
/// error. TCP repeats its SYN in this case.
bool isBacklogFull(const error_code& error, const Address& address) {
    return address.storage.ss_family == AF_UNIX &&
           (error == asio::error::no_buffer_space || error == asio::error::not_connected);
}

std::string connectError(const error_code& error, const Address& address) {
    if (!error) {
        return {};
    }
    if (isBacklogFull(error, address)) {
        return "the server accepts no connection at " + toText(address);
    }
    return error == asio::error::connection_refused
               ? "connection refused by " + toText(address)
               : "no connection to " + toText(address) + ": " + error.message();
}

/// Empty if memory runs out.
std::string messageOf(const std::exception& error) noexcept {
    try {
        return error.what();
    } catch (const std::bad_alloc&) {
        return {};
    }
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

/// Runs a step. Reports its exceptions as a failure of the connection.
template <typename Step>
void Connector::guarded(const Step& step) noexcept {
    try {
        step();
    } catch (const std::bad_alloc&) {
        fail(CommunicationStatus::OutOfMemory);
    } catch (const std::exception& error) {
        fail(tls_ != nullptr ? CommunicationStatus::TlsFailed : CommunicationStatus::ConnectFailed,
             messageOf(error));
    }
}

void Connector::start(const Addresses& addresses) {
    guarded([&] {
        addresses_ = addresses;
        startAttempts();
    });
}

void Connector::onTime() {
    startAttempts();
}

std::string Connector::refusal() const noexcept {
    try {
        const bool isRefused = !plain_ && !secure_ && isBacklogFull(lastError_, lastFailed_);
        return isRefused ? connectError(lastError_, lastFailed_) : "";
    } catch (const std::bad_alloc&) {
        return {};
    }
}

/// Starts an attempt for the next address. Continues with further addresses as long as attempts
/// fail at once.
void Connector::startAttempts() {
    guarded([this] {
        while (next_ < addresses_.size()) {
            const Address& address = addresses_[next_++];
            const bool isUnderWay = startAttempt(address);
            const bool isUnix = address.storage.ss_family == AF_UNIX;
            nextAttempt_ = isUnix                      ? Clock::now() + kRetry
                           : next_ < addresses_.size() ? Clock::now() + stagger()
                                                       : Clock::time_point::max();
            if (isUnderWay) {
                return;
            }
        }
        if (failedAttempts_ == addresses_.size()) {
            fail(CommunicationStatus::ConnectFailed, connectError(lastError_, lastFailed_));
        }
    });
}

/// The delay between two attempts, short enough that each address is tried within the connect
/// time-out.
std::chrono::milliseconds Connector::stagger() const {
    return std::min(kStagger, settings_.connectTimeout() / static_cast<int>(addresses_.size()));
}

bool Connector::startAttempt(const Address& address) {
    const int family = address.storage.ss_family;
    attempts_.emplace_back(io_, address);
    Attempt& attempt = attempts_.back();
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) {
        countFailed(attempt, error_code(errno, boost::system::system_category()));
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
        countFailed(attempt, error);
        return false;
    }
    attempt.socket.non_blocking(true, error);
    if (family != AF_UNIX) {
        setTcpOptions(descriptor);
    }
    attempt.socket.async_connect(
        asio::generic::stream_protocol::endpoint(&attempt.address.storage, attempt.address.size),
        [self = shared_from_this(), &attempt](const error_code& result) {
            self->onAttemptEnd(attempt, result);
        });
    return true;
}

void Connector::countFailed(const Attempt& attempt, const error_code& error) {
    ++failedAttempts_;
    lastError_ = error;
    lastFailed_ = attempt.address;
}

void Connector::onAttemptEnd(Attempt& attempt, const error_code& status) {
    if (owner_ == nullptr || plain_) {
        return;
    }
    const error_code error = resultOf(attempt.socket, attempt.address, status);
    if (isBacklogFull(error, attempt.address)) {
        lastError_ = error;
        lastFailed_ = attempt.address;
        attempts_.clear();
        next_ = 0;  // At nextAttempt_.
        return;
    }
    if (error) {
        error_code ignored;
        attempt.socket.close(ignored);
        countFailed(attempt, error);
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
        continueSetup();
    });
}

void Connector::continueSetup() {
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
    plain_->write(tunnelRequest_, {});  // If it breaks, the outstanding read ends with an error.
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
                fail(CommunicationStatus::ConnectFailed, "the proxy's answer is not valid");
        }
    });
}

// Bytes after the proxy's answer are an error: nothing was sent to the server yet.
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
    guarded([this, end] {
        if (end == Stream::End::OutOfMemory) {
            fail(CommunicationStatus::OutOfMemory);
        } else {
            fail(CommunicationStatus::ConnectFailed, "the proxy ended the connection");
        }
    });
}

void Connector::startTls() {
    secure_ = std::make_shared<TlsStream>(plain_->release(), tls_->context());
    tls_->prepare(secure_->native());
    secure_->handshake(
        [self = shared_from_this()](const error_code& error) { self->onHandshake(error); });
}

void Connector::onHandshake(const error_code& error) {
    if (error) {
        tls_->forgetContext();
        guarded([this, &error] {
            fail(CommunicationStatus::TlsFailed,
                 "TLS with " + settings_.origin.authority +
                     " failed: " + TlsClient::handshakeError(secure_->native(), error));
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

void Connector::fail(CommunicationStatus status, const std::string& detail) {
    Owner* const owner = owner_;
    cancel();
    if (owner != nullptr) {
        owner->onConnectFailed(*this, status, detail);
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
