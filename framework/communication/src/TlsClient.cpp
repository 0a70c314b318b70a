// Configures OpenSSL for one endpoint.
// Entered by the I/O thread only; there is no lock. The I/O threads of several contexts share the
// index of OpenSSL's data, which is an atomic.

#include "TlsClient.h"

#include "FileContent.h"
#include "Require.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

namespace orvx::communication {

namespace ssl = boost::asio::ssl;
using boost::system::error_code;

namespace {

// Servers issue two sessions for a connection. More sessions than are resumed at once are useless.
constexpr std::size_t kMostSessions = 16;

void require(bool isValid, const char* message) {
    communication::require(isValid, std::string(message));
}

std::string pemIn(const std::string& path) {
    if (path.empty()) {
        return {};
    }
    auto content = contentOf(path);
    communication::require(content && !content->empty(), path + " cannot be read");
    return *std::move(content);
}

// A client in a static object may use its I/O thread while the process exits, so OpenSSL must not
// be cleaned up by atexit(). The first user of OpenSSL in the process decides this.
void setUpOpenssl() {
    if (OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr) != 1) {
        throw std::bad_alloc();
    }
}

// OpenSSL reports failures in a queue that it allocates for each thread. Without the queue Asio
// takes a failure for a success.
void requireErrorQueue() {
    ERR_raise(ERR_LIB_USER, ERR_R_MALLOC_FAILURE);
    const bool exists = ERR_peek_error() != 0;
    ERR_clear_error();
    if (!exists) {
        throw std::bad_alloc();
    }
}

/// The host without its zone and without the trailing dot of an absolute name, which neither a
/// certificate nor SNI contains.
std::string nameInCertificate(const std::string& host) {
    std::string name = host.substr(0, host.find('%'));
    if (!name.empty() && name.back() == '.') {
        name.pop_back();
    }
    return name;
}

bool isAddress(const std::string& host) {
    in6_addr ignored;
    return ::inet_pton(AF_INET, host.c_str(), &ignored) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), &ignored) == 1;
}

/// The index of the OpenSSL extra data that refers to the TlsClient. -1 if memory runs out; the
/// next call tries again.
int indexOfClient() noexcept {
    static std::atomic<int> known{-1};
    int index = known;
    if (index < 0) {
        const int made = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
        // Another I/O thread may have been first.
        index = known.compare_exchange_strong(index, made) ? made : index;
    }
    return index;
}

boost::asio::const_buffer buffer(const std::string& text) {
    return boost::asio::buffer(text.data(), text.size());
}

}  // namespace

TlsClient::TlsClient(const TlsConfig& config, const std::string& host)
    : config_(config),
      host_(nameInCertificate(host)),
      isAddress_(isAddress(host_)),
      // OpenSSL reads a folder of authorities on demand, so its content cannot be compared.
      mayKeepContext_(config.disableServerVerification ||
                      (!config.authorityFile.empty() && config.authorityFolder.empty())) {
    setUpOpenssl();
}

TlsClient::~TlsClient() = default;

std::shared_ptr<ssl::context> TlsClient::context() {
    requireErrorQueue();
    const Files files = readFiles();
    if (!mayKeepContext_) {
        return makeContext(files);
    }
    const Digest digest = digestOf(files);
    if (!context_ || digest != digest_) {
        sessions_.clear();
        context_ = makeContext(files);
        digest_ = digest;
    }
    return context_;
}

void TlsClient::forgetContext() noexcept {
    sessions_.clear();
    context_.reset();
}

TlsClient::Files TlsClient::readFiles() const {
    Files files{pemIn(config_.authorityFile), pemIn(config_.clientCertificateFile),
                pemIn(config_.clientKeyFile)};
    if (files.key.empty()) {
        files.key = files.certificate;
    }
    return files;
}

TlsClient::Digest TlsClient::digestOf(const Files& files) {
    Digest digest{};
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> state(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
    bool isValid = state && EVP_DigestInit_ex(state.get(), EVP_sha256(), nullptr) == 1;
    for (const std::string* const file : {&files.authorities, &files.certificate, &files.key}) {
        const std::uint64_t size = file->size();
        isValid = isValid && EVP_DigestUpdate(state.get(), &size, sizeof size) == 1 &&
                  EVP_DigestUpdate(state.get(), file->data(), file->size()) == 1;
    }
    isValid = isValid && EVP_DigestFinal_ex(state.get(), digest.data(), nullptr) == 1;
    require(isValid, "no SHA-256");
    return digest;
}

std::shared_ptr<ssl::context> TlsClient::makeContext(const Files& files) {
    ERR_clear_error();
    // Asio's own call takes a failure that leaves no error in the queue for a success.
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> made(SSL_CTX_new(TLS_client_method()),
                                                           SSL_CTX_free);
    if (!made) {
        throw std::bad_alloc();
    }
    auto context = std::make_shared<ssl::context>(made.get());
    SSL_CTX* const native = made.release();
    const bool is13 = config_.lowestVersion == TlsConfig::Version::Tls13;
    SSL_CTX_set_min_proto_version(native, is13 ? TLS1_3_VERSION : TLS1_2_VERSION);
    SSL_CTX_set_options(native, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // Without this callback OpenSSL asks the terminal for the password of an encrypted key.
    SSL_CTX_set_default_passwd_cb(native, [](char*, int, int, void*) { return -1; });
    if (!config_.disableServerVerification) {
        loadAuthorities(*context, files);
    }
    SSL_CTX_set_verify(
        native, config_.disableServerVerification ? SSL_VERIFY_NONE : SSL_VERIFY_PEER, nullptr);
    if (!files.certificate.empty()) {
        error_code error;
        context->use_certificate_chain(buffer(files.certificate), error);
        require(!error, "the client's certificate cannot be used");
        context->use_private_key(buffer(files.key), ssl::context::pem, error);
        require(!error && SSL_CTX_check_private_key(native) == 1,
                "the client's key cannot be used");
    }
    if (mayKeepContext_) {
        SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
        SSL_CTX_sess_set_new_cb(native, &TlsClient::onNewSession);
    } else {
        SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    }
    ERR_clear_error();
    return context;
}

// The system's authorities are the paths that OpenSSL was built with. Environment variables that
// name other paths are ignored.
void TlsClient::loadAuthorities(ssl::context& context, const Files& files) const {
    SSL_CTX* const native = context.native_handle();
    if (config_.authorityFile.empty() && config_.authorityFolder.empty()) {
        SSL_CTX_load_verify_file(native, X509_get_default_cert_file());  // The file may be missing.
        SSL_CTX_load_verify_dir(native, X509_get_default_cert_dir());
        return;
    }
    if (!files.authorities.empty()) {
        error_code error;
        context.add_certificate_authority(buffer(files.authorities), error);
        require(!error, "the file of authorities cannot be used");
    }
    if (!config_.authorityFolder.empty()) {
        require(SSL_CTX_load_verify_dir(native, config_.authorityFolder.c_str()) == 1,
                "the folder of authorities cannot be used");
    }
}

void TlsClient::prepare(SSL& ssl) {
    bool isValid = SSL_set_ex_data(&ssl, indexOfClient(), this) == 1;
    if (isAddress_) {
        isValid =
            isValid && X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(&ssl), host_.c_str()) == 1;
    } else {
        isValid = isValid && SSL_set1_host(&ssl, host_.c_str()) == 1 &&
                  SSL_set_tlsext_host_name(&ssl, host_.c_str()) == 1;
    }
    if (!isValid) {
        throw std::bad_alloc();
    }
    if (sessions_.empty()) {
        return;
    }
    SSL_set_session(&ssl, sessions_.back().get());
    // A TLS 1.3 session is used once, so that an observer cannot link two connections of the same
    // client.
    if (SSL_SESSION_get_protocol_version(sessions_.back().get()) == TLS1_3_VERSION) {
        sessions_.pop_back();
    }
}

void TlsClient::detach(SSL& ssl) noexcept {
    SSL_set_ex_data(&ssl, indexOfClient(), nullptr);
}

int TlsClient::onNewSession(SSL* ssl, SSL_SESSION* session) noexcept {
    auto* const self = static_cast<TlsClient*>(SSL_get_ex_data(ssl, indexOfClient()));
    // A session that was verified with other files must not be resumed.
    if (self == nullptr || !self->context_ ||
        SSL_get_SSL_CTX(ssl) != self->context_->native_handle()) {
        return 0;
    }
    try {
        auto& sessions = self->sessions_;
        const bool isSingleUse = SSL_SESSION_get_protocol_version(session) == TLS1_3_VERSION;
        if (sessions.size() == kMostSessions || (!isSingleUse && !sessions.empty())) {
            sessions.erase(sessions.begin());
        }
        sessions.reserve(sessions.size() + 1);
        sessions.emplace_back(session);
        return 1;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

std::string TlsClient::handshakeError(const SSL& ssl, const error_code& error) {
    const long verified = SSL_get_verify_result(&ssl);
    if (SSL_get_verify_mode(&ssl) != SSL_VERIFY_NONE && verified != X509_V_OK) {
        return X509_verify_cert_error_string(verified);
    }
    return error == ssl::error::stream_truncated || error == boost::asio::error::eof
               ? "the peer closed the connection"
               : error.message();
}

}  // namespace orvx::communication
