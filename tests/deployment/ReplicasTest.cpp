// A registry name with three addresses: services stay announced while the replicas at these
// addresses stop and start. The replicas are three nginx in front of one registry, which represents
// the store that replicas share. Entered by the test's thread and the client's; the servers are
// child processes. No lock.
#include "DeadResolver.h"
#include "IntegrationTest.h"
#include "Loopback.h"
#include "RegistryProcess.h"
#include "Servers.h"

#include <array>
#include <csignal>

namespace orvx::serviceregistryclient {
namespace {

using communication::ClientStatistics;
using registry::ChildProcess;
using testing::Folder;
using Method = ClientStatistics::Method;

/// Forwards connections from the same port of three loopback addresses.
class Replicas {
  public:
    Replicas(const Folder& folder, std::uint16_t registry)
        : folder_(folder), registry_(registry), first_([this](std::uint16_t port) {
              auto replica = start(0, port);
              start(1, port).swap(others_[0]);
              start(2, port).swap(others_[1]);
              return replica;
          }) {}

    std::uint16_t port() const { return first_.port(); }
    void signal(std::size_t number, int signal) const {
        (number == 0 ? first_.process() : *others_[number - 1]).signal(signal);
    }
    /// Starts the replica at the last address again.
    void startLast() { start(2, port()).swap(others_[1]); }

  private:
    std::unique_ptr<ChildProcess> start(std::size_t number, std::uint16_t port) const {
        const std::string name = "replica" + std::to_string(number);
        const std::string config = folder_.write(
            name, "daemon off; master_process off; pid " + name +
                      ".pid; error_log stderr notice; events {}\n"
                      "http { access_log off; client_body_temp_path b; proxy_temp_path p; "
                      "fastcgi_temp_path f; uwsgi_temp_path u; scgi_temp_path s;\n"
                      "server { listen 127.0.0." +
                      std::to_string(number + 1) + ':' + std::to_string(port) +
                      "; location / { proxy_pass http://127.0.0.1:" + std::to_string(registry_) +
                      "; } } }\n");
        auto replica = std::make_unique<ChildProcess>(
            ORVX_NGINX,
            std::vector<std::string>{"-p", folder_.file(""), "-c", config, "-e", "stderr"});
        replica->awaitErrors("event method");
        return replica;
    }

    const Folder& folder_;
    const std::uint16_t registry_;
    std::array<std::unique_ptr<ChildProcess>, 2> others_;
    testing::Program first_;
};

class TheReplicas : public ::testing::Test {
  protected:
    TheReplicas() {
        http.statistics = std::make_shared<ClientStatistics>();
        context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context.enableResilience(true);
        context.setHttpConfig(http);
        context.setCheckInterval(1s);
        context.setHeadTimeout(1s);
        context.init();
        const auto outcome = context.getServiceRegistryClient()->registerServiceAtRegistry(
            {"registry", "registry.replicas.test", replicas.port()}, service("lamp"));
        EXPECT_EQ(outcome.response.status, OrvRegistrationResponse::OK);
        entries = entriesAt(registry.port());
        EXPECT_EQ(entries.size(), 1U);
    }

    ClientStatistics::OfMethod counted(Method method) const {
        return http.statistics->snapshot().byMethod.at(method);
    }
    /// The service was confirmed again, has the same entry, and was never found missing.
    void expectConfirmed() {
        const auto before = counted(Method::Head).byHttpStatus[200];
        EXPECT_TRUE(
            eventually([&] { return counted(Method::Head).byHttpStatus[200] >= before + 2; }));
        EXPECT_EQ(counted(Method::Head).byHttpStatus.count(404), 0U);
        EXPECT_EQ(counted(Method::Put).completed, 1U);
        const json now = entriesAt(registry.port());
        EXPECT_EQ(now.at(0).at("uuid"), entries.at(0).at("uuid"));
    }

    const Folder folder;
    registry::RegistryProcess registry{{"--port", "0"}};
    const testing::DeadResolver resolver;
    Replicas replicas{folder, registry.port()};
    communication::HttpConfig http;
    OrvServiceRegistryContext context;
    json entries;
};

TEST_F(TheReplicas, AreTriedOneAfterTheOtherUntilOneAnswers) {
    expectConfirmed();
    replicas.signal(0, SIGKILL);
    expectConfirmed();
    replicas.signal(1, SIGKILL);
    expectConfirmed();
}

// The kernel still accepts connections for a stopped process.
TEST_F(TheReplicas, AreLeftWhenTheyAcceptConnectionsAndDoNotAnswer) {
    expectConfirmed();
    replicas.signal(0, SIGSTOP);
    expectConfirmed();
    replicas.signal(1, SIGSTOP);
    expectConfirmed();
    replicas.signal(0, SIGCONT);
    replicas.signal(2, SIGSTOP);
    expectConfirmed();
}

TEST_F(TheReplicas, AreAskedAgainWhenTheyAreBack) {
    replicas.signal(2, SIGKILL);
    expectConfirmed();
    replicas.startLast();
    replicas.signal(0, SIGKILL);
    replicas.signal(1, SIGKILL);
    expectConfirmed();
}

}  // namespace
}  // namespace orvx::serviceregistryclient
