#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClient.h>

#include <atomic>
#include <memory>

/// A service that knows whether it can be found at the registry.
class EchoService {
  public:
    EchoService(orvx::serviceregistryclient::IOrvServiceRegistryClient& client,
                const orvx::common::ServiceInfo& registry);

    bool canBeFound() const { return *canBeFound_; }

  private:
    /// Shared with the listener, which the client may call after the end of the service.
    const std::shared_ptr<std::atomic<bool>> canBeFound_ =
        std::make_shared<std::atomic<bool>>(false);
};
