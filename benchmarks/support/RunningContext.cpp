// The options of the contexts that are measured.
// One thread, no lock.

#include "RunningContext.h"

namespace orvx::benchmarks {

common::ServiceInfo registryAt(std::uint16_t port) {
    return {"registry", "127.0.0.1", port};
}

RunningContext::RunningContext(std::chrono::seconds checkInterval) {
    communication::HttpConfig http;
    http.connectionsPerEndpoint = kConnections;
    http.requestTimeout = std::chrono::hours(1);
    context_.setHttpConfig(http);
    context_.setCheckInterval(checkInterval);
    context_.setHeadTimeout(std::chrono::hours(1));
    context_.setLogLevel(utility::ILogger::LogLevel::Error);
    context_.init();
}

}  // namespace orvx::benchmarks
