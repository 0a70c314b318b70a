// The HTTP configuration of a context, observed at the registry. Threads: the test's, the client's
// three, the registry's and that of the server in front; they share sockets only.
#include "IntegrationTest.h"

#include <set>

namespace orvx::serviceregistryclient {
namespace {

using testing::HostileServer;
using testing::Request;

class TheHttpConfiguration : public IntegrationTest {
  protected:
    /// Registers a service, waits for a check, and withdraws it. Returns the requests.
    std::vector<Request> requestsOfALifetime() {
        HostileServer front;
        front.onRequest(
            [this](const Request& request) { return passOn(request, registry.port()); });
        context.setCheckInterval(0s);
        start();
        const auto withdraw = registered("lamp", front.port());
        EXPECT_TRUE(front.waitForRequests(2));
        EXPECT_EQ(outcomeOf(withdraw), "OK/NONE");
        context.deinit();
        return front.requests();
    }
};

TEST_F(TheHttpConfiguration, GivesEveryRequestItsHeadersAndItsUserAgent) {
    communication::HttpConfig config;
    config.headers = {{"X-Team", "lighting"}, {"X-Room", "kitchen"}};
    config.userAgent = "lamp/1.0";
    context.setHttpConfig(config);
    std::set<std::string> methods;
    for (const Request& request : requestsOfALifetime()) {
        methods.insert(request.method);
        EXPECT_EQ(request.header("X-Team"), "lighting");
        EXPECT_EQ(request.header("X-Room"), "kitchen");
        EXPECT_EQ(request.header("User-Agent"), "lamp/1.0");
    }
    EXPECT_EQ(methods, (std::set<std::string>{"DELETE", "HEAD", "PUT"}));
}

TEST_F(TheHttpConfiguration, NamesTheLibraryAsTheUserAgentByDefault) {
    for (const Request& request : requestsOfALifetime()) {
        EXPECT_EQ(request.header("User-Agent"), "OrvxServiceRegistryClient");
    }
}

TEST_F(TheHttpConfiguration, BoundsHowLongARequestMayTake) {
    HostileServer front;
    front.onRequest([](const Request& /*request*/) { return testing::Script().silence(); });
    communication::HttpConfig config;
    config.requestTimeout = 50ms;
    context.setHttpConfig(config);
    context.enableRetry(false);
    start();
    const auto lamp = client().registerServiceAtRegistry(at(front.port()), service("lamp"));
    EXPECT_EQ(text(lamp.response), "ERROR/SERVICE_REGISTRY_ERROR");
    EXPECT_EQ(lamp.response.httpResponse->getCommunicationStatus(),
              communication::CommunicationStatus::TimedOut);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
