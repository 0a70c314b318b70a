// Looks at the files of TLS before the first connection needs them: whether they can be read, and
// hold what they should as far as the lines that PEM begins with tell.
// Pure functions but for the files, entered by the thread that initialises; there is no lock.

#include "EndpointCheck.h"
#include "Require.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace orvx::communication {

namespace {

constexpr const char* kCertificate = "CERTIFICATE-----";
constexpr const char* kKey = "PRIVATE KEY-----";

std::string named(const std::string& option, const std::string& path) {
    return "HttpConfig::tls." + option + ": " + path;
}

bool has(const std::string& pem, const char* what) {
    return pem.find(what) != std::string::npos;
}

std::string contentOf(const std::string& option, const std::string& path) {
    std::error_code ignored;
    const auto status = std::filesystem::status(path, ignored);
    // First: to open a pipe is to wait for who writes there.
    require(!std::filesystem::exists(status) || std::filesystem::is_regular_file(status),
            named(option, path) + " is no file.");
    errno = 0;
    std::ifstream file(path);
    const int error = errno;
    require(file.is_open(), named(option, path) +
                                " cannot be read: " + std::generic_category().message(error) + ".");
    return {std::istreambuf_iterator<char>(file), {}};
}

void checkCertificate(const std::string& option, const std::string& path) {
    require(has(contentOf(option, path), kCertificate),
            named(option, path) + " contains no certificate in PEM.");
}

void checkKey(const std::string& option, const std::string& path) {
    const std::string pem = contentOf(option, path);
    require(has(pem, kKey), named(option, path) + " contains no private key in PEM.");
    require(!has(pem, "ENCRYPTED"),
            named(option, path) + " contains an encrypted key, which nobody is asked to open.");
}

void checkFolder(const std::string& option, const std::string& path) {
    std::error_code error;
    const std::filesystem::directory_iterator ignored(path, error);
    require(!error, named(option, path) + " cannot be read: " + error.message() + ".");
}

}  // namespace

void checkFiles(const TlsConfig& tls) {
    if (!tls.authorityFile.empty()) {
        checkCertificate("authorityFile", tls.authorityFile);
    }
    if (!tls.authorityFolder.empty()) {
        checkFolder("authorityFolder", tls.authorityFolder);
    }
    if (tls.clientCertificateFile.empty()) {
        return;
    }
    checkCertificate("clientCertificateFile", tls.clientCertificateFile);
    if (tls.clientKeyFile.empty()) {
        checkKey("clientCertificateFile", tls.clientCertificateFile);
    } else {
        checkKey("clientKeyFile", tls.clientKeyFile);
    }
}

}  // namespace orvx::communication
