#pragma once

// What the C++ in the how-to about testing is compiled with.

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/simulation/Registry.h>

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

namespace orvx::docs {

using namespace orvx::common;
using namespace orvx::communication;
using namespace orvx::serviceregistryclient;
using namespace std::chrono_literals;

/// What a reader has at hand: a simulated world, a registry in it, its endpoint, and a client that
/// is running.
class Reader {
  public:
    Reader() {
        context_.setLogLevel(utility::ILogger::LogLevel::Off);
        context_.init();
    }

    std::tuple<simulation::World&, simulation::Registry&, const ServiceInfo&,
               IOrvServiceRegistryClient&, OrvServiceRegistryContext&>
    has() {
        return {world_, registry_, endpoint_, *context_.getServiceRegistryClient(), context_};
    }

  private:
    simulation::World world_;
    simulation::Registry registry_{world_};
    const ServiceInfo endpoint_{"registry", "registry.test", 8500};
    OrvServiceRegistryContext context_;
};

extern const std::vector<void (*)(Reader&)> snippets;

}  // namespace orvx::docs
