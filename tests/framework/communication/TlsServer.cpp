// OpenSSL on blocking sockets. serve() runs on the server's thread, which ends when the listener is
// shut down; the rest is entered by the test's thread. `mutex_` guards the records and is a leaf
// lock.

#include "TlsServer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace orvx::testing {

using utility::MutexLock;

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

void require(bool isFine) {
    if (!isFine) {
        throw std::runtime_error("no server of TLS");
    }
}

Certificate makeCertificate(EVP_PKEY* key, const TlsServer::Options& options) {
    Certificate certificate(X509_new(), X509_free);
    X509* const made = certificate.get();
    X509_set_version(made, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made), 1);
    X509_gmtime_adj(X509_getm_notBefore(made), options.validFrom);
    X509_gmtime_adj(X509_getm_notAfter(made), options.validUntil);
    X509_NAME* const name = X509_get_subject_name(made);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("server"), -1, -1, 0);
    X509_set_issuer_name(made, name);
    X509_set_pubkey(made, key);
    X509_EXTENSION* const extension =
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, options.subject.c_str());
    require(extension != nullptr && X509_add_ext(made, extension, -1) == 1);
    X509_EXTENSION_free(extension);
    require(X509_sign(made, key, EVP_sha256()) != 0);
    return certificate;
}

}  // namespace

TlsServer::TlsServer(const Options& options, Script script)
    : script_(std::move(script)),
      afterHandshake_(options.afterHandshake),
      context_(SSL_CTX_new(TLS_server_method())),
      listener_(bindLoopback(options.loopback, options.port)),
      port_(portOf(listener_)) {
    setUp(options);
    listenOn(listener_, 100);
    std::signal(SIGPIPE, SIG_IGN);  // OpenSSL writes without MSG_NOSIGNAL.
    thread_ = std::thread([this] { serve(); });
}

TlsServer::~TlsServer() {
    ::shutdown(listener_.fd(), SHUT_RDWR);
    thread_.join();
    std::remove(authority_.c_str());
}

void TlsServer::setUp(const Options& options) {
    const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    require(key != nullptr);
    const Certificate certificate = makeCertificate(key.get(), options);
    require(SSL_CTX_use_certificate(context_.get(), certificate.get()) == 1 &&
            SSL_CTX_use_PrivateKey(context_.get(), key.get()) == 1);
    SSL_CTX_set_security_level(context_.get(), 0);  // Otherwise the old versions are disabled.
    SSL_CTX_set_cipher_list(context_.get(), "ALL:@SECLEVEL=0");
    require(SSL_CTX_set_min_proto_version(context_.get(), options.version) == 1 &&
            SSL_CTX_set_max_proto_version(context_.get(), options.version) == 1);
    const std::array<unsigned char, 1> idContext{'t'};
    SSL_CTX_set_session_id_context(context_.get(), idContext.data(), idContext.size());
    authority_ = ::testing::TempDir() + "orvx-tls-" + std::to_string(::getpid()) + "-" +
                 std::to_string(port_) + ".pem";
    std::FILE* const file = std::fopen(authority_.c_str(), "w");
    require(file != nullptr && PEM_write_X509(file, certificate.get()) == 1 &&
            PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1);
    std::fclose(file);
    if (options.isMutual) {
        require(SSL_CTX_load_verify_file(context_.get(), authority_.c_str()) == 1);
        SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                           nullptr);
    }
}

void TlsServer::serve() {
    for (;;) {
        waitForEvents(listener_, 1 /* POLLIN */, 10'000);
        const int connection = ::accept(listener_.fd(), nullptr, nullptr);
        if (connection >= 0) {
            serve(connection);
            ::close(connection);
        } else if (errno != EAGAIN) {
            return;
        }
    }
}

void TlsServer::serve(int connection) {
    const timeval patience{5, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const int on = 1;
    ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context_.get()), SSL_free);
    if (!afterHandshake_.empty()) {
        handshakeAndSend(connection, *ssl);
        return;
    }
    SSL_set_fd(ssl.get(), connection);
    if (SSL_accept(ssl.get()) == 1) {
        {
            MutexLock lock(mutex_);
            resumed_.push_back(SSL_session_reused(ssl.get()) == 1);
        }
        script_(*ssl);
    }
    ERR_clear_error();
    // A reset must not overtake the sent bytes.
    ::shutdown(connection, SHUT_WR);
    std::array<char, 1024> ignored;
    while (::recv(connection, ignored.data(), ignored.size(), 0) > 0) {
    }
}

void TlsServer::handshakeAndSend(int connection, SSL& ssl) const {
    BIO* const in = BIO_new(BIO_s_mem());
    BIO* const out = BIO_new(BIO_s_mem());
    SSL_set_bio(&ssl, in, out);
    std::array<char, 4096> bytes;
    while (BIO_pending(out) == 0) {
        const auto size = ::recv(connection, bytes.data(), bytes.size(), 0);
        if (size <= 0) {
            return;
        }
        BIO_write(in, bytes.data(), static_cast<int>(size));
        SSL_accept(&ssl);
    }
    char* begin = nullptr;
    const auto size = BIO_get_mem_data(out, &begin);
    const std::string flight = std::string(begin, static_cast<std::size_t>(size)) + afterHandshake_;
    ::send(connection, flight.data(), flight.size(), MSG_NOSIGNAL);
    while (::recv(connection, bytes.data(), bytes.size(), 0) > 0) {
    }
}

std::vector<bool> TlsServer::resumed() const {
    MutexLock lock(mutex_);
    return resumed_;
}

void TlsServer::readRequest(SSL& ssl) {
    std::string request;
    std::array<char, 1024> bytes;
    while (request.find("\r\n\r\n") == std::string::npos) {
        const int size = SSL_read(&ssl, bytes.data(), bytes.size());
        if (size <= 0) {
            return;
        }
        request.append(bytes.data(), static_cast<std::size_t>(size));
    }
}

void TlsServer::send(SSL& ssl, const std::string& bytes) {
    SSL_write(&ssl, bytes.data(), static_cast<int>(bytes.size()));
}

}  // namespace orvx::testing
