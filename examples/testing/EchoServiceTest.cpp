// Tests a service whose registry loses its entry, in simulated time.
#include "EchoService.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/simulation/Registry.h>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using orvx::communication::HttpResponse;

class TheEchoService : public ::testing::Test {
  protected:
    TheEchoService() {
        context.setCheckInterval(10s);
        context.enableResilience(true);
        context.init();
        service.emplace(*context.getServiceRegistryClient(),
                        orvx::common::ServiceInfo("registry", "registry.test", 8500));
        registry.settle();
    }

    orvx::simulation::World world;  // first: the client lives in it
    orvx::simulation::Registry registry{world};
    orvx::serviceregistryclient::OrvServiceRegistryContext context;
    std::optional<EchoService> service;
};

TEST_F(TheEchoService, CannotBeFoundUntilTheRegistryThatForgotItTakesItAgain) {
    EXPECT_TRUE(service->canBeFound());
    EXPECT_TRUE(registry.holds("/echo/127.0.0.1:8080"));
    registry.forgetAll();
    registry.fails(HttpResponse(HttpResponse::StatusCode::ServiceUnavailable, "", ""), "PUT");
    registry.settle();
    EXPECT_TRUE(service->canBeFound()) << "no check was due yet";
    registry.advance(10s);
    EXPECT_FALSE(service->canBeFound()) << "the check has found the loss";
    registry.works();
    registry.advance(10s);  // longer than the longest pause between two attempts, 8 s
    EXPECT_TRUE(service->canBeFound()) << "it was announced again";
}
