// A TLS client on blocking sockets with time-outs, and its certificates.
// Runs on the thread that owns the connection.
// There is no lock.

#include "TlsConnection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <stdexcept>
#include <utility>
#include <vector>

namespace orvx::registry {

namespace {

void require(bool good, const char* what) {
    if (!good) {
        std::array<char, 200> reason{};
        ERR_error_string_n(ERR_get_error(), reason.data(), reason.size());
        throw std::runtime_error(std::string(what) + ": " + reason.data());
    }
}

void runOpenssl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "openssl");
    const auto result = ChildProcess("/usr/bin/env", arguments).wait();
    if (result.status != 0) {
        throw std::runtime_error("openssl: " + result.errors);
    }
}

int connectTo(std::uint16_t port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval longest{10, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
    ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(socket);
        throw std::runtime_error("connect");
    }
    return socket;
}

}  // namespace

Certificates::Certificates(std::string folder) : folder_(std::move(folder)) {
    runOpenssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", file("ca.key"), "-out", file("ca.pem"), "-subj", "/CN=authority"});
}

void Certificates::make(const std::string& name) const {
    runOpenssl({"req",
                "-x509",
                "-newkey",
                "ec",
                "-pkeyopt",
                "ec_paramgen_curve:P-256",
                "-nodes",
                "-keyout",
                file(name + ".key"),
                "-out",
                file(name + ".pem"),
                "-subj",
                "/CN=" + name,
                "-CA",
                file("ca.pem"),
                "-CAkey",
                file("ca.key"),
                "-addext",
                "subjectAltName=IP:127.0.0.1",
                "-addext",
                "basicConstraints=critical,CA:FALSE"});
}

void TlsConnection::CloseSocket::operator()(SSL* ssl) const {
    ::close(SSL_get_fd(ssl));
    SSL_free(ssl);
}

TlsConnection::TlsConnection(std::uint16_t port, const Certificates& certificates,
                             const std::string& own) {
    std::signal(SIGPIPE, SIG_IGN);
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(
        SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    SSL_CTX_load_verify_file(context.get(), certificates.file("ca.pem").c_str());
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    if (!own.empty()) {
        SSL_CTX_use_certificate_file(context.get(), certificates.file(own + ".pem").c_str(),
                                     SSL_FILETYPE_PEM);
        SSL_CTX_use_PrivateKey_file(context.get(), certificates.file(own + ".key").c_str(),
                                    SSL_FILETYPE_PEM);
    }
    const int socket = connectTo(port);
    ssl_.reset(SSL_new(context.get()));
    SSL_set_fd(ssl_.get(), socket);
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_.get()), "127.0.0.1");
    require(SSL_connect(ssl_.get()) == 1, "handshake");
}

void TlsConnection::send(const std::string& bytes) {
    require(SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())) > 0, "send");
}

bool TlsConnection::isClosedByPeer() {
    std::array<char, 1> byte{};
    const int size = unread_.empty() ? SSL_read(ssl_.get(), byte.data(), 1) : 1;
    return size <= 0 && SSL_get_error(ssl_.get(), size) == SSL_ERROR_ZERO_RETURN;
}

bool TlsConnection::readMore() {
    std::array<char, 16'384> bytes;
    const int size = SSL_read(ssl_.get(), bytes.data(), bytes.size());
    if (size <= 0) {
        require(SSL_get_error(ssl_.get(), size) == SSL_ERROR_ZERO_RETURN, "receive");
        return false;
    }
    unread_.append(bytes.data(), static_cast<std::size_t>(size));
    return true;
}

}  // namespace orvx::registry
