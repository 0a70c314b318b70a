// The communication context of a simulated world: the World passes its requests to the test.
// Entered by the test's thread only; there is no lock.

#include <orvx/communication/OrvClientCommunicationContext.h>

#include "Network.h"

#include <orvx/communication/ConfigCheck.h>
#include <orvx/communication/RequestTarget.h>
#include <orvx/utility/OrvFoundationException.h>

#include <limits>

namespace orvx::communication {

using simulation::World;

struct OrvClientCommunicationContext::State : IClientHttpFactory {
    std::shared_ptr<IClientHttpSession> createSession(
        const std::string& host, std::uint32_t port, HttpConfig sessionConfig,
        std::shared_ptr<HealthCheck> sessionHealthCheck,
        std::shared_ptr<ClientStatistics> sessionStatistics) override {
        simulation::WorldState& world = network->world();
        world.passStep(World::Step::MakeSession);
        checkConfig(sessionConfig);
        if (authority(host, port).empty() || port == 0 ||
            port > std::numeric_limits<std::uint16_t>::max()) {
            throw utility::OrvFoundationException("The host or the port cannot be used.", 0);
        }
        const auto narrowPort = static_cast<std::uint16_t>(port);
        auto session = std::make_shared<simulation::Session>(
            network, host, narrowPort, std::move(sessionHealthCheck), std::move(sessionStatistics));
        world.sessions.push_back({host, narrowPort, std::move(sessionConfig)});
        return session;
    }

    std::shared_ptr<simulation::Network> network = std::make_shared<simulation::Network>();
    HttpConfig config;
    HttpConfig nextConfig;
    std::shared_ptr<HealthCheck> healthCheck = std::make_shared<HealthCheck>();
    std::shared_ptr<ClientStatistics> statistics = std::make_shared<ClientStatistics>();
};

OrvClientCommunicationContext::OrvClientCommunicationContext()
    : state_(std::make_shared<State>()) {}

OrvClientCommunicationContext::~OrvClientCommunicationContext() {
    deinit();
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the real context stores it.
void OrvClientCommunicationContext::setLoggerFactory(std::shared_ptr<utility::ILoggerFactory>) {}

void OrvClientCommunicationContext::setLogLevel(utility::ILogger::LogLevel) {}

void OrvClientCommunicationContext::setHttpConfig(HttpConfig config) {
    state_->nextConfig = std::move(config);
}

void OrvClientCommunicationContext::init() {
    if (!state_->network->isRunning()) {
        checkConfig(state_->nextConfig);
        state_->network->start(World::Step::InitCommunication, "ORVX_HttpIO");
        state_->config = state_->nextConfig;
    }
}

void OrvClientCommunicationContext::deinit() {
    state_->network->close();
}

HttpConfig OrvClientCommunicationContext::getHttpConfig() const {
    return state_->config;
}

IClientHttpFactory& OrvClientCommunicationContext::getClientHttpFactory() const {
    return *state_;
}

std::shared_ptr<IClientHttpSession> OrvClientCommunicationContext::getUnavailableSession() const {
    return std::make_shared<simulation::Session>(state_->network, "", std::uint16_t{0},
                                                 state_->healthCheck, getClientStatistics(),
                                                 CommunicationStatus::NoSession);
}

std::shared_ptr<HealthCheck> OrvClientCommunicationContext::getHealthCheck() const {
    return state_->healthCheck;
}

std::shared_ptr<ClientStatistics> OrvClientCommunicationContext::getClientStatistics() const {
    return state_->config.statistics ? state_->config.statistics : state_->statistics;
}

}  // namespace orvx::communication
