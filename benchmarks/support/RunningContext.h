#pragma once

#include "Transport.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/ServiceInfo.h>

#include <chrono>
#include <cstdint>

namespace orvx::benchmarks {

/// The number of connections unless another one is given.
inline constexpr std::size_t kConnections = 16;

common::ServiceInfo registryAt(std::uint16_t port);
/// The configuration with this many connections over this transport; requests do not time out.
communication::HttpConfig httpConfig(std::size_t connections, Transport transport);

/// A context in use. It logs errors only. Its time-outs are longer than any benchmark: all services
/// share one check state, so a single head time-out would end checks.
class RunningContext {
  public:
    explicit RunningContext(std::chrono::seconds checkInterval,
                            Transport transport = Transport::Plain);

    serviceregistryclient::IOrvServiceRegistryClient& client() {
        return *context_.getServiceRegistryClient();
    }

  private:
    serviceregistryclient::OrvServiceRegistryContext context_;
};

}  // namespace orvx::benchmarks
