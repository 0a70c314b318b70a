#pragma once

#include <orvx/communication/ClientStatistics.h>
#include <orvx/communication/HealthCheck.h>
#include <orvx/communication/HttpConfig.h>
#include <orvx/communication/IClientHttpSession.h>

#include <cstdint>
#include <memory>
#include <string>

namespace orvx::communication {

/// Makes sessions. Thread-safety: may be called from any thread.
class IClientHttpFactory {
  public:
    virtual ~IClientHttpFactory();

    /// Makes a session for the endpoint; opens no connection yet. Never returns null. A session may
    /// outlive the communication context; its requests are dropped then.
    /// `host` is a name, an IPv4 address, or an IPv6 address with or without brackets.
    /// Throws utility::OrvFoundationException if host, port or configuration cannot be used.
    virtual std::shared_ptr<IClientHttpSession> createSession(
        const std::string& host, std::uint32_t port, HttpConfig config,
        std::shared_ptr<HealthCheck> healthCheck, std::shared_ptr<ClientStatistics> statistics) = 0;
};

}  // namespace orvx::communication
