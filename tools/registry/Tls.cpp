// Sets OpenSSL up for a server or a client.
// Runs on the thread that owns the context or connection.
// There is no lock.

#include "Tls.h"

#include <arpa/inet.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>

#include "FileContent.h"

namespace orvx::registry {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

constexpr std::size_t kLongestSubject = 200;

void require(bool isFine, const std::string& path, const char* otherwise) {
    ERR_clear_error();
    if (!isFine) {
        throw FileError("TLS " + path + ": " + otherwise);
    }
}

asio::const_buffer buffer(const std::string& text) {
    return {text.data(), text.size()};
}

/// Requires certificates of these authorities from clients. The authorities' names are sent to the
/// clients, so that they can choose a certificate.
void loadAuthority(asio::ssl::context& context, const std::string& path) {
    SSL_CTX* const native = context.native_handle();
    const std::string pem = contentOf("TLS", path);
    error_code error;
    context.add_certificate_authority(buffer(pem), error);
    require(!error, path, "it holds no certificate in PEM");
    const std::unique_ptr<BIO, decltype(&BIO_free)> bytes(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    while (X509* const read =
               bytes ? PEM_read_bio_X509(bytes.get(), nullptr, nullptr, nullptr) : nullptr) {
        const std::unique_ptr<X509, decltype(&X509_free)> authority(read, X509_free);
        SSL_CTX_add_client_CA(native, authority.get());
    }
    ERR_clear_error();
    SSL_CTX_set_verify(native, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
}

std::string nameInCertificate(const std::string& host) {
    std::string name = host.substr(0, host.find('%'));
    if (!name.empty() && name.back() == '.') {
        name.pop_back();
    }
    return name;
}

}  // namespace

void loadOwn(asio::ssl::context& context, const TlsFiles& files) {
    // Otherwise OpenSSL asks at the terminal for the password of an encrypted key.
    SSL_CTX_set_default_passwd_cb(context.native_handle(),
                                  [](char*, int, int, void*) { return -1; });
    error_code error;
    context.use_certificate_chain(buffer(contentOf("TLS", files.certificate)), error);
    require(!error, files.certificate, "it holds no certificate in PEM");
    const std::string& key = files.key.empty() ? files.certificate : files.key;
    context.use_private_key(buffer(contentOf("TLS", key)), asio::ssl::context::pem, error);
    require(!error, key, "it holds no key in PEM that is not encrypted and fits the certificate");
    require(SSL_CTX_check_private_key(context.native_handle()) == 1, key,
            "the key does not fit the certificate");
}

std::unique_ptr<asio::ssl::context> makeTlsContext(const TlsFiles& files) {
    if (files.certificate.empty()) {
        return nullptr;
    }
    auto context = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
    SSL_CTX* const native = context->native_handle();
    SSL_CTX_set_min_proto_version(native, TLS1_2_VERSION);
    SSL_CTX_set_options(
        native, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_mode(native, SSL_MODE_RELEASE_BUFFERS);  // frees the buffers of idle connections
    // Sessions are resumed by tickets, which use no memory of the server and end with the context.
    SSL_CTX_set_session_cache_mode(native, SSL_SESS_CACHE_OFF);
    constexpr unsigned char kId[] = "orvx-registry";
    SSL_CTX_set_session_id_context(native, kId, sizeof kId);
    loadOwn(*context, files);
    if (!files.authority.empty()) {
        loadAuthority(*context, files.authority);
    }
    return context;
}

std::unique_ptr<asio::ssl::context> makeClientTlsContext(const TlsFiles& files) {
    auto context = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_client);
    SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    SSL_CTX_set_verify(context->native_handle(), SSL_VERIFY_PEER, nullptr);
    error_code error;
    if (files.authority.empty()) {
        context->set_default_verify_paths(error);
        require(!error, "certificates of the system", "they cannot be read");
    } else {
        context->add_certificate_authority(buffer(contentOf("TLS", files.authority)), error);
        require(!error, files.authority, "it holds no certificate in PEM");
    }
    if (!files.certificate.empty()) {
        loadOwn(*context, files);
    }
    return context;
}

void expectHost(SSL& ssl, const std::string& host) {
    const std::string name = nameInCertificate(host);
    in6_addr ignored;
    if (name.empty()) {
        SSL_set1_host(&ssl, host.c_str());  // matches no certificate; an empty name would match all
    } else if (::inet_pton(AF_INET, name.c_str(), &ignored) == 1 ||
               ::inet_pton(AF_INET6, name.c_str(), &ignored) == 1) {
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(&ssl), name.c_str());
    } else {
        SSL_set1_host(&ssl, name.c_str());
        SSL_set_tlsext_host_name(&ssl, name.c_str());
    }
}

std::string subjectOfPeer(const SSL& ssl) {
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(SSL_get1_peer_certificate(&ssl),
                                                                  X509_free);
    const std::unique_ptr<BIO, decltype(&BIO_free)> text(BIO_new(BIO_s_mem()), BIO_free);
    if (!certificate || !text ||
        X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate.get()), 0,
                           XN_FLAG_RFC2253) < 0) {
        return {};
    }
    std::string subject(kLongestSubject, '\0');
    const int size = BIO_read(text.get(), subject.data(), static_cast<int>(subject.size()));
    subject.resize(static_cast<std::size_t>(std::max(size, 0)));
    return subject;
}

}  // namespace orvx::registry
