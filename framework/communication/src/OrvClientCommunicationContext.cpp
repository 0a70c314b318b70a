// Starts and stops HTTP for a client, and makes sessions.
// init(), deinit() and the setters are entered by one thread at a time, which may be the I/O thread
// inside a handler; the getters and createSession() by any thread. `mutex` guards the configuration
// in effect and is a leaf lock.

#include <orvx/communication/OrvClientCommunicationContext.h>

#include "EndpointCheck.h"
#include "HttpEngine.h"
#include "HttpSession.h"

#include <orvx/utility/Mutex.h>

#include <algorithm>
#include <vector>

namespace orvx::communication {

using utility::ILogger;
using utility::MutexLock;

struct OrvClientCommunicationContext::State : IClientHttpFactory {
    std::shared_ptr<IClientHttpSession> createSession(
        const std::string& host, std::uint32_t port, HttpConfig sessionConfig,
        std::shared_ptr<HealthCheck> sessionHealthCheck,
        std::shared_ptr<ClientStatistics> sessionStatistics) override {
        // Does not check the files: a file that is being replaced must not refuse the session.
        checkConfig(sessionConfig);
        Origin proxy = proxyOf(sessionConfig);
        EndpointSettings settings{originOf(host, port), std::move(proxy), std::move(sessionConfig),
                                  std::move(sessionHealthCheck), std::move(sessionStatistics)};
        return std::make_shared<HttpSession>(
            inbox, std::make_shared<EndpointSettings>(std::move(settings)));
    }

    bool isRunning() const { return !engines.empty() && engines.back()->isRunning(); }
    utility::StreamingLogger makeLogger() const {
        const bool isWanted = loggerFactory && logLevel >= ILogger::LogLevel::Warning;
        return utility::StreamingLogger(
            isWanted ? loggerFactory->createLogger("OrvxCommunication", "HttpEngine") : nullptr);
    }

    std::shared_ptr<utility::ILoggerFactory> loggerFactory;
    ILogger::LogLevel logLevel = utility::Logger::DEFAULT_LOG_LEVEL;
    HttpConfig nextConfig;
    mutable utility::Mutex mutex;
    HttpConfig config ORVX_GUARDED_BY(mutex);

    const std::shared_ptr<HealthCheck> healthCheck = std::make_shared<HealthCheck>();
    const std::shared_ptr<ClientStatistics> statistics = std::make_shared<ClientStatistics>();
    const std::shared_ptr<RequestInbox> inbox = std::make_shared<RequestInbox>();
    /// Only the last engine may be running. The others were stopped inside one of their handlers
    /// and are not joined yet.
    std::vector<std::shared_ptr<HttpEngine>> engines;
};

OrvClientCommunicationContext::OrvClientCommunicationContext()
    : state_(std::make_shared<State>()) {}

OrvClientCommunicationContext::~OrvClientCommunicationContext() {
    deinit();
}

void OrvClientCommunicationContext::setLoggerFactory(
    std::shared_ptr<utility::ILoggerFactory> loggerFactory) {
    state_->loggerFactory = std::move(loggerFactory);
}

void OrvClientCommunicationContext::setLogLevel(ILogger::LogLevel level) {
    state_->logLevel = level;
}

void OrvClientCommunicationContext::setHttpConfig(HttpConfig config) {
    state_->nextConfig = std::move(config);
}

void OrvClientCommunicationContext::init() {
    if (state_->isRunning()) {
        return;
    }
    checkConfig(state_->nextConfig);
    checkFiles(state_->nextConfig.tls);
    HttpConfig config = state_->nextConfig;
    auto engine = std::make_shared<HttpEngine>(state_->inbox, state_->makeLogger());
    state_->engines.reserve(state_->engines.size() + 1);
    engine->start();
    state_->engines.push_back(std::move(engine));
    MutexLock lock(state_->mutex);
    state_->config = std::move(config);
}

void OrvClientCommunicationContext::deinit() {
    auto& engines = state_->engines;
    // The destructor of a dropped handler may call deinit() again, which removes engines.
    // NOLINTNEXTLINE(modernize-loop-convert)
    for (std::size_t i = 0; i < engines.size(); ++i) {
        const auto engine = engines[i];
        engine->stop();
    }
    const auto ended = std::remove_if(engines.begin(), engines.end(),
                                      [](const auto& engine) { return engine->hasEnded(); });
    engines.erase(ended, engines.end());
}

HttpConfig OrvClientCommunicationContext::getHttpConfig() const {
    MutexLock lock(state_->mutex);
    return state_->config;
}

IClientHttpFactory& OrvClientCommunicationContext::getClientHttpFactory() const {
    return *state_;
}

std::shared_ptr<IClientHttpSession> OrvClientCommunicationContext::getUnavailableSession() const {
    EndpointSettings settings{{}, {}, getHttpConfig(), getHealthCheck(), getClientStatistics()};
    return std::make_shared<HttpSession>(state_->inbox,
                                         std::make_shared<EndpointSettings>(std::move(settings)),
                                         CommunicationStatus::NoSession);
}

std::shared_ptr<HealthCheck> OrvClientCommunicationContext::getHealthCheck() const {
    return state_->healthCheck;
}

std::shared_ptr<ClientStatistics> OrvClientCommunicationContext::getClientStatistics() const {
    MutexLock lock(state_->mutex);
    return state_->config.statistics ? state_->config.statistics : state_->statistics;
}

}  // namespace orvx::communication
