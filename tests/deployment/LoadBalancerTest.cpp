// haproxy with the services of the registry as its servers, configured as in the how-to. Entered by
// the test's thread, the client's and those of the services; haproxy, the registry and the command
// of the how-to are child processes. No lock.
#include "IntegrationTest.h"
#include "Paths.h"
#include "RawConnection.h"
#include "RegistryProcess.h"
#include "Servers.h"

#include <algorithm>
#include <csignal>
#include <regex>
#include <set>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

using registry::ChildProcess;
using registry::RegistryProcess;
using testing::Folder;
using testing::Haproxy;
using testing::HostileServer;
using Clock = std::chrono::steady_clock;

/// A service that answers with its name, and counts its requests.
struct Backend {
    explicit Backend(const std::string& name) {
        service.onRequest(
            [name](const auto& /*request*/) { return testing::response(200, {}, name); });
    }
    HostileServer service;
};

class TheLoadBalancer : public ::testing::Test {
  protected:
    TheLoadBalancer() {
        context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context.enableResilience(true);
        context.init();
        std::smatch block;
        const std::string page = testing::contentOf(paths::kLoadBalancerPage);
        EXPECT_TRUE(
            std::regex_search(page, block, std::regex("```sh\n(orvx-registry watch[^`]*)```")));
        std::string script = Haproxy::inFolder(block[1], folder);
        script =
            std::regex_replace(script, std::regex("\\b8500\\b"), std::to_string(registry.port()));
        script = std::regex_replace(script, std::regex("/usr/local/bin"), paths::kHaproxyExample);
        script = std::regex_replace(script, std::regex("^orvx-registry"),
                                    "exec " + RegistryProcess::path());
        watch.emplace("/bin/sh", std::vector<std::string>{"-c", script});
    }

    std::function<OrvRegistrationResponse()> announce(const Backend& backend) {
        auto& client = *context.getServiceRegistryClient();
        const auto description =
            client.getSharedServiceCreate({"web", "127.0.0.1", backend.service.port()});
        description->setUri("/web/" + std::to_string(backend.service.port()));
        const auto outcome = client.registerServiceAtRegistry(
            {"registry", "127.0.0.1", registry.port()}, description);
        EXPECT_EQ(outcome.response.status, OrvRegistrationResponse::OK);
        return outcome.unregister;
    }
    /// Sends a request to haproxy. Returns the name of the service that answers, or "503".
    std::string ask() const {
        const auto response =
            registry::RawConnection(haproxy.port()).ask(registry::makeRequest("GET", "/"));
        return response.result_int() == 200 ? response.body()
                                            : std::to_string(response.result_int());
    }
    /// Waits until ten requests in a row are answered by these services only. Returns the time that
    /// it took.
    Clock::duration expectAnswersOf(const std::set<std::string>& wanted) const {
        const auto begin = Clock::now();
        EXPECT_TRUE(eventually([&] {
            std::set<std::string> seen;
            for (int i = 0; i < 10; ++i) {
                seen.insert(ask());
            }
            return seen == wanted;
        })) << *wanted.begin();
        return Clock::now() - begin;
    }

    const Folder folder;
    RegistryProcess registry{{"--port", "0"}};
    const Haproxy haproxy{folder};
    std::optional<ChildProcess> watch;
    OrvServiceRegistryContext context;
};

TEST_F(TheLoadBalancer, SendsRequestsToAnnouncedServicesOnly) {
    const Backend one("one");
    const Backend two("two");
    expectAnswersOf({"503"});
    // Tried again, because the script may be late on a busy machine.
    auto shortest = Clock::duration::max();
    for (int round = 0; round < 10 && shortest >= 1s; ++round) {
        const auto withdrawOne = announce(one);
        shortest = std::min(shortest, expectAnswersOf({"one"}));
        const auto withdrawTwo = announce(two);
        shortest = std::min(shortest, expectAnswersOf({"one", "two"}));
        withdrawOne();
        shortest = std::min(shortest, expectAnswersOf({"two"}));
        withdrawTwo();
        shortest = std::min(shortest, expectAnswersOf({"503"}));
    }
    EXPECT_LT(shortest, 1s);
}

TEST_F(TheLoadBalancer, KnowsItsServicesAfterAReload) {
    const Backend one("one");
    announce(one);
    expectAnswersOf({"one"});
    haproxy.reload();
    expectAnswersOf({"one"});
}

TEST_F(TheLoadBalancer, KeepsItsServicesWhileTheRegistryIsAway) {
    const Backend one("one");
    announce(one);
    expectAnswersOf({"one"});
    registry.signal(SIGKILL);
    watch->awaitErrors("orvx-registry: registry ");
    expectAnswersOf({"one"});
}

TEST_F(TheLoadBalancer, IsTheConfigurationThatThePageShows) {
    EXPECT_THAT(testing::contentOf(paths::kLoadBalancerPage),
                ::testing::HasSubstr(
                    testing::contentOf(std::string(paths::kHaproxyExample) + "/haproxy.cfg")));
}

TEST_F(TheLoadBalancer, SaysWhenItHasTooFewSlots) {
    registry::RawConnection connection(registry.port());
    for (int i = 1; i <= 22; ++i) {
        connection.ask(registry::makeRequest(
            "PUT", "/" + std::to_string(i),
            R"({"name":"web","host":"127.0.0.1","port":)" + std::to_string(i) + "}"));
    }
    watch->awaitErrors("orvx-haproxy: backend web has no slots for 2 services\n");
}

TEST_F(TheLoadBalancer, LeavesOutServicesThatCannotBeReached) {
    registry::RawConnection connection(registry.port());
    int count = 0;
    for (const char* service :
         {R"({"name":"web"})", R"({"name":"web","host":"a b;c","port":1})",
          R"({"name":"web","host":"127.0.0.1","port":70000})",
          R"({"name":"web","host":"127.0.0.1\ndisable server web/slot1","port":1})"}) {
        connection.ask(registry::makeRequest("PUT", "/" + std::to_string(++count), service));
    }
    const Backend one("one");
    announce(one);
    expectAnswersOf({"one"});
}

}  // namespace
}  // namespace orvx::serviceregistryclient
