// The options of the measured contexts. One thread, no lock.

#include "RunningContext.h"

namespace orvx::benchmarks {

common::ServiceInfo registryAt(std::uint16_t port) {
    return {"registry", "127.0.0.1", port};
}

communication::HttpConfig httpConfig(std::size_t connections, Transport transport) {
    communication::HttpConfig http;
    http.connectionsPerEndpoint = connections;
    http.requestTimeout = std::chrono::hours(1);
    if (transport == Transport::Tls) {
        http.tls.enabled = true;
        http.tls.authorityFile = certificateFile();
    }
    return http;
}

RunningContext::RunningContext(std::chrono::seconds checkInterval, Transport transport) {
    context_.setHttpConfig(httpConfig(kConnections, transport));
    context_.setCheckInterval(checkInterval);
    context_.setHeadTimeout(std::chrono::hours(1));
    context_.setLogLevel(utility::ILogger::LogLevel::Error);
    context_.init();
}

}  // namespace orvx::benchmarks
