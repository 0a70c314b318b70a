// From the command line to the library's options.
// Everything happens on the main thread; there is no lock.

#include "Settings.h"

namespace orvx::announce {

AnnouncementSettings settingsFrom(
    const RegistryOptions& options,
    const std::shared_ptr<communication::HttpCredentials>& credentials) {
    communication::HttpConfig http;
    http.userAgent = "orvx-announce";
    http.connectionsPerEndpoint = 2;  // a check that hangs does not hold up a withdrawal
    http.credentials = credentials;
    http.proxy = options.proxy;
    http.unixSocketPath = options.unixSocket;
    http.tls.enabled = options.secure;
    http.tls.authorityFile = options.authorityFile;
    http.tls.clientCertificateFile = options.clientCertificateFile;
    http.tls.clientKeyFile = options.clientKeyFile;
    return {common::ServiceInfo("registry", options.host, options.port), http,
            options.checkInterval, options.checkTimeout, options.retryInterval};
}

}  // namespace orvx::announce
