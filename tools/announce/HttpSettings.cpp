// Converts the options for the connection to the registry to the library's configuration.
// Runs on the main thread; there is no lock.

#include "HttpSettings.h"

#include <orvx/utility/OrvFoundationException.h>
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <string>
#include <utility>

namespace orvx::announce {

namespace {

/// Replaces the library's names of the options by those of this program.
std::string inTermsOfOptions(std::string sentence) {
    for (const auto& [name, option] : {std::pair{"HttpConfig::proxy", "--proxy"},
                                       {"HttpConfig::unixSocketPath", "--unix-socket"},
                                       {"HttpConfig::tls.authorityFile", "--ca-file"},
                                       {"HttpConfig::tls.clientCertificateFile", "--client-cert"},
                                       {"HttpConfig::tls.clientKeyFile", "--client-key"}}) {
        const auto begin = sentence.find(name);
        if (begin != std::string::npos) {
            sentence.replace(begin, std::string(name).size(), option);
        }
    }
    return sentence.substr(0, sentence.find_last_not_of('.') + 1);
}

}  // namespace

communication::HttpConfig httpConfig(const RegistryOptions& registry) {
    communication::HttpConfig http;
    http.userAgent = "orvx-announce";
    http.proxy = registry.proxy;
    http.unixSocketPath = registry.unixSocket;
    http.tls.enabled = registry.secure;
    http.tls.authorityFile = registry.authorityFile;
    http.tls.clientCertificateFile = registry.clientCertificateFile;
    http.tls.clientKeyFile = registry.clientKeyFile;
    return http;
}

void checkHttpConfig(const RegistryOptions& registry) {
    serviceregistryclient::OrvServiceRegistryContext context;
    context.setHttpConfig(httpConfig(registry));
    context.setLogLevel(utility::ILogger::LogLevel::Off);
    try {
        context.init();
    } catch (const utility::OrvFoundationException& error) {
        throw UsageError(inTermsOfOptions(error.what()));
    }
}

}  // namespace orvx::announce
