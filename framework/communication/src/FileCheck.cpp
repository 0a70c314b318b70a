// Checks the TLS files before the first connection needs them: whether they can be read, and
// whether they contain the expected PEM labels.
// Entered by the thread that initialises; there is no state and no lock.

#include "EndpointCheck.h"
#include "FileContent.h"
#include "Require.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace orvx::communication {

namespace {

constexpr const char* kCertificate = "CERTIFICATE-----";
constexpr const char* kKey = "PRIVATE KEY-----";

std::string optionAndPath(const std::string& option, const std::string& path) {
    return "HttpConfig::tls." + option + ": " + path;
}

bool contains(const std::string& pem, const char* label) {
    return pem.find(label) != std::string::npos;
}

std::string pemIn(const std::string& option, const std::string& path) {
    std::error_code ignored;
    const auto status = std::filesystem::status(path, ignored);
    // Checked before opening, because opening a pipe waits for a writer.
    require(!std::filesystem::exists(status) || std::filesystem::is_regular_file(status),
            optionAndPath(option, path) + " is no file.");
    auto content = contentOf(path);
    const int error = errno;
    require(content.has_value(), optionAndPath(option, path) + " cannot be read: " +
                                     std::generic_category().message(error) + ".");
    return *std::move(content);
}

void checkCertificate(const std::string& option, const std::string& path) {
    require(contains(pemIn(option, path), kCertificate),
            optionAndPath(option, path) + " contains no certificate in PEM.");
}

void checkKey(const std::string& option, const std::string& path) {
    const std::string pem = pemIn(option, path);
    require(contains(pem, kKey), optionAndPath(option, path) + " contains no private key in PEM.");
    require(
        !contains(pem, "ENCRYPTED"),
        optionAndPath(option, path) + " contains an encrypted key, which nobody is asked to open.");
}

void checkFolder(const std::string& option, const std::string& path) {
    std::error_code error;
    const std::filesystem::directory_iterator ignored(path, error);
    require(!error, optionAndPath(option, path) + " cannot be read: " + error.message() + ".");
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
