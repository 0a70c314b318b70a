// The client in a deployment: a server in front of the registry that speaks TLS or listens at a
// Unix domain socket, a proxy between client and registry, credentials, and the replacement of
// certificates and credentials while services are announced. Entered by the test thread and the
// client's threads; all servers and proxies are child processes. No lock.
#include "IntegrationTest.h"
#include "RegistryProcess.h"
#include "Servers.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <set>

namespace orvx::serviceregistryclient {
namespace {

using communication::ClientStatistics;
using communication::HttpCredentials;
using testing::CertificateFolder;
using ::testing::HasSubstr;
using testing::Nginx;
using ::testing::Not;
using testing::Proxy;
using Method = ClientStatistics::Method;

class ADeployment : public ::testing::Test {
  protected:
    ADeployment() {
        folder.makeAuthority("authority");
        folder.makeCertificate("server", "authority");
        context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context.setHeadTimeout(1min);
        context.setCheckInterval(0s);
        context.enableRetry(false);
        http.statistics = std::make_shared<ClientStatistics>();
    }

    void useTls() {
        http.tls.enabled = true;
        http.tls.authorityFile = folder.file("authority.pem");
    }
    void identify() {
        http.tls.clientCertificateFile = folder.file("client.pem");
        http.tls.clientKeyFile = folder.file("client.key");
    }
    /// Renames a complete file over the authority's file, so that no reader sees a partial file.
    void replaceAuthorityBy(const std::string& name) const {
        folder.write("next.pem", testing::contentOf(folder.file(name + ".pem")));
        std::filesystem::rename(folder.file("next.pem"), folder.file("authority.pem"));
    }
    void start() {
        context.setHttpConfig(http);
        context.init();
        client().addServiceRegisterStatusListener(
            [this](const auto& /*service*/, bool isThere) { notifications.write(isThere); });
    }
    IOrvServiceRegistryClient& client() { return *context.getServiceRegistryClient(); }

    /// "OK", the HTTP status code of a refusal, or the communication status of a failure.
    static std::string describe(const OrvRegistrationResponse& outcome) {
        if (outcome.status == OrvRegistrationResponse::OK) {
            return "OK";
        }
        const auto status = outcome.httpResponse->getCommunicationStatus();
        return status == communication::CommunicationStatus::Ok
                   ? std::to_string(static_cast<int>(outcome.httpResponse->getStatusCode()))
                   : communicationStatusToString(status);
    }
    std::string registered(const std::string& name, std::uint16_t port) {
        auto outcome =
            client().registerServiceAtRegistry({"registry", "127.0.0.1", port}, service(name));
        withdraw = outcome.unregister;
        return describe(outcome.response);
    }
    /// Announces the service, waits for checks, and withdraws it.
    void liveThrough(std::uint16_t port) {
        EXPECT_EQ(registered("lamp", port), "OK");
        EXPECT_EQ(entriesAt(registry.port()).size(), 1U);
        awaitAnswersToChecks(200);
        EXPECT_EQ(describe(withdraw()), "OK");
        EXPECT_EQ(entriesAt(registry.port()).size(), 0U);
    }

    std::set<std::string> uuids() const {
        std::set<std::string> uuids;
        for (const json& entry : entriesAt(registry.port())) {
            uuids.insert(entry.at("uuid"));
        }
        return uuids;
    }

    ClientStatistics::OfMethod counted(Method method) const {
        return http.statistics->snapshot().byMethod.at(method);
    }
    std::uint64_t answersToChecks(int httpStatus) const {
        return counted(Method::Head).byHttpStatus[httpStatus];
    }
    /// Waits until five more checks have been answered with this status.
    void awaitAnswersToChecks(int httpStatus) const {
        const auto before = answersToChecks(httpStatus);
        EXPECT_TRUE(eventually([&] { return answersToChecks(httpStatus) >= before + 5; }))
            << httpStatus;
    }

    const CertificateFolder folder;
    registry::RegistryProcess registryProcess{{"--port", "0"}};
    struct {
        std::uint16_t number;
        std::uint16_t port() const { return number; }
    } registry{registryProcess.port()};
    utility::test::Journal<bool> notifications;
    communication::HttpConfig http;
    OrvServiceRegistryContext context;
    std::function<OrvRegistrationResponse()> withdraw;
};

TEST_F(ADeployment, SupportsAllOperationsThroughATlsServer) {
    const Nginx nginx(folder, registry.port(), {true, "", ""});
    useTls();
    start();
    liveThrough(nginx.port());
}

TEST_F(ADeployment, AcceptsOnlyClientsWithACertificate) {
    const Nginx::Config config{true, "ssl_verify_client on; ssl_client_certificate authority.pem;",
                               ""};
    const Nginx nginx(folder, registry.port(), config);
    folder.makeCertificate("client", "authority");
    useTls();
    start();
    EXPECT_EQ(registered("stranger", nginx.port()), "400");
    context.deinit();
    identify();
    start();
    liveThrough(nginx.port());
    EXPECT_THAT(nginx.log(), HasSubstr("PUT 400 [-] [-] 1\n"));
    EXPECT_THAT(nginx.log(), HasSubstr("[CN=client]"));
}

TEST_F(ADeployment, IsVerifiedWithTheReplacedAuthorityFile) {
    Nginx nginx(folder, registry.port(), {true, "", ""});
    useTls();
    start();
    EXPECT_EQ(registered("lamp", nginx.port()), "OK");
    folder.makeAuthority("successor");
    folder.makeCertificate("server", "successor");
    nginx.reload({true, "", ""});
    EXPECT_EQ(registered("early", nginx.port()), "TLS_FAILED");
    replaceAuthorityBy("successor");
    EXPECT_EQ(registered("clock", nginx.port()), "OK");
    awaitAnswersToChecks(200);
    EXPECT_EQ(notifications.await(2), (std::vector<bool>{true, true})) << "nothing was lost";
}

TEST_F(ADeployment, ReceivesTheReplacedClientCertificate) {
    const std::string options = "ssl_verify_client on; ssl_client_certificate ";
    Nginx nginx(folder, registry.port(), {true, options + "authority.pem;", ""});
    folder.makeCertificate("client", "authority");
    useTls();
    identify();
    start();
    EXPECT_EQ(registered("lamp", nginx.port()), "OK");
    folder.makeAuthority("successor");
    nginx.reload({true, options + "successor.pem;", ""});
    EXPECT_EQ(registered("early", nginx.port()), "400");
    folder.makeCertificate("client", "successor");
    EXPECT_TRUE(eventually([&] { return registered("clock", nginx.port()) == "OK"; }))
        << "connections that are kept still show the old one";
    awaitAnswersToChecks(200);
}

TEST_F(ADeployment, IsReachedThroughATunnelOfTheProxy) {
    const Nginx nginx(folder, registry.port(), {true, "", ""});
    Proxy proxy(folder, "user", "secret");
    useTls();
    http.proxy = proxy.url();
    http.proxyCredentials = std::make_shared<HttpCredentials>();
    start();
    EXPECT_EQ(registered("early", nginx.port()), "CONNECT_FAILED");
    http.proxyCredentials->setBasic("user", "wrong");
    EXPECT_EQ(registered("early", nginx.port()), "CONNECT_FAILED");
    http.proxyCredentials->setBasic("user", "secret");
    liveThrough(nginx.port());
    proxy.awaitRequest("CONNECT 127.0.0.1:" + std::to_string(nginx.port()));
}

TEST_F(ADeployment, IsUnreachableWhenTheProxyRefusesTheNextTunnel) {
    Nginx nginx(folder, registry.port(), {true, "", ""});
    const Proxy proxy(folder, "user", "secret");
    useTls();
    http.proxy = proxy.url();
    http.proxyCredentials = std::make_shared<HttpCredentials>();
    http.proxyCredentials->setBasic("user", "secret");
    context.enableCheck(false);
    start();
    EXPECT_EQ(registered("lamp", nginx.port()), "OK");
    http.proxyCredentials->setBasic("user", "wrong");
    EXPECT_EQ(registered("clock", nginx.port()), "OK") << "the existing tunnel continues";
    nginx.reload({true, "", ""});
    EXPECT_EQ(registered("late", nginx.port()), "CONNECT_FAILED");
}

TEST_F(ADeployment, IsReachedInPlainTextThroughTheProxy) {
    const Nginx nginx(folder, registry.port(), {});
    Proxy proxy(folder, "user", "secret");
    http.proxy = proxy.url();
    http.proxyCredentials = std::make_shared<HttpCredentials>();
    start();
    EXPECT_NE(registered("early", nginx.port()), "OK");
    http.proxyCredentials->setBasic("user", "secret");
    liveThrough(nginx.port());
    proxy.awaitRequest("HEAD http://127.0.0.1:" + std::to_string(nginx.port()));
}

TEST_F(ADeployment, IsReachedOverAUnixSocketInPlainTextAndWithTls) {
    for (const bool hasTls : {false, true}) {
        const Nginx nginx(folder, registry.port(), {hasTls, "", ""});
        if (hasTls) {
            useTls();
        }
        http.unixSocketPath = folder.file("registry.socket");
        start();
        const testing::RefusedPort nobody;
        liveThrough(nobody.port());
        context.deinit();
        EXPECT_THAT(nginx.log(), HasSubstr("HEAD 200 [-] [-] 2\n")) << "connections are kept";
    }
}

TEST_F(ADeployment, IsReachedOverAUnixSocketByManyAtOnce) {
    const Nginx nginx(folder, registry.port(), {});
    http.unixSocketPath = folder.file("registry.socket");
    context.enableCheck(false);
    start();
    const auto outcomes =
        client().registerServicesAtRegistry({"registry", "127.0.0.1", 1}, services("lamp", 100));
    EXPECT_TRUE(outcomes.first);
    EXPECT_EQ(counted(Method::Put).byHttpStatus, (std::map<int, std::uint64_t>{{201, 100}}));
    EXPECT_EQ(entriesAt(registry.port()).size(), 100U);
}

/// The configuration of a server that accepts only this value of the Authorization header.
Nginx::Config forThoseWith(const std::string& authorization) {
    return {true, "if ($may = 0) { return 401; }",
            "map $http_authorization $may { default 0; '" + authorization + "' 1; }"};
}

TEST_F(ADeployment, ReceivesANewTokenWithoutLosingAnEntry) {
    Nginx nginx(folder, registry.port(), forThoseWith("Bearer old"));
    useTls();
    http.credentials = std::make_shared<HttpCredentials>();
    http.credentials->setBearerToken("old");
    start();
    constexpr int kCount = 5;
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(registered("lamp" + std::to_string(i), nginx.port()), "OK");
    }
    const auto before = uuids();
    awaitAnswersToChecks(200);
    nginx.reload(forThoseWith("Bearer new"));
    awaitAnswersToChecks(401);
    http.credentials->setBearerToken("new");
    awaitAnswersToChecks(200);
    const auto refused = answersToChecks(401);
    awaitAnswersToChecks(200);
    EXPECT_LE(answersToChecks(401), refused + kCount) << "those that were on their way";
    EXPECT_EQ(counted(Method::Put).completed, 0U + kCount);
    EXPECT_EQ(notifications.await(kCount), std::vector<bool>(kCount, true));
    EXPECT_EQ(uuids(), before);
    EXPECT_THAT(nginx.log(), HasSubstr("HEAD 200 [Bearer new]"));
    EXPECT_EQ(describe(withdraw()), "OK");
}

TEST_F(ADeployment, AcceptsAUserWithAPassword) {
    folder.write("users", "lamp:{PLAIN}secret\n");
    const Nginx::Config config{true, "auth_basic registry; auth_basic_user_file users;", ""};
    const Nginx nginx(folder, registry.port(), config);
    useTls();
    http.credentials = std::make_shared<HttpCredentials>();
    start();
    http.credentials->setBasic("lamp", "wrong");
    EXPECT_EQ(registered("lamp", nginx.port()), "401");
    http.credentials->setBasic("lamp", "secret");
    liveThrough(nginx.port());
}

}  // namespace
}  // namespace orvx::serviceregistryclient
