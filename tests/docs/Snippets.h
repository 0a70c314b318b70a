#pragma once

// What the C++ in the documentation is compiled with.

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>

#include <chrono>
#include <future>
#include <iostream>
#include <tuple>
#include <vector>

namespace orvx::docs {

using namespace orvx::common;
using namespace orvx::communication;
using namespace orvx::serviceregistryclient;

/// What a reader has at hand: a registry, an endpoint, a client that is running, and the context of
/// one that is still to come.
class Reader {
  public:
    explicit Reader(std::uint16_t registryPort) : registry_("registry", "127.0.0.1", registryPort) {
        running_.init();
    }

    std::tuple<const ServiceInfo&, const ServiceInfo&, IOrvServiceRegistryClient&,
               OrvServiceRegistryContext&>
    has() {
        return {registry_, self_, *running_.getServiceRegistryClient(), context_};
    }

  private:
    const ServiceInfo registry_;
    const ServiceInfo self_{"echo", "127.0.0.1", 8080};
    OrvServiceRegistryContext running_;
    OrvServiceRegistryContext context_;
};

extern const std::vector<void (*)(Reader&)> snippets;

}  // namespace orvx::docs
