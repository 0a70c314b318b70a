// TLS against a real server with an authority made for the test: what is trusted, and that nothing
// falls back to no verification. What it cannot prove: certificates that have expired.
#include "ChildProcess.h"
#include "RoadTest.h"

#include <cstdlib>
#include <filesystem>

namespace orvx::serviceregistryclient {
namespace {

/// A registry over TLS as a child process, with its certificates in a folder of its own.
class TlsRegistry {
  public:
    explicit TlsRegistry(const std::string& subject, const std::string& option = "")
        : process_("/usr/bin/env", arguments(folder_, subject, option)) {
        const std::string& output = process_.awaitOutput(".");
        port_ = static_cast<std::uint16_t>(std::stoi(output.substr(std::string("port ").size())));
    }
    ~TlsRegistry() { std::filesystem::remove_all(folder_); }
    TlsRegistry(const TlsRegistry&) = delete;
    TlsRegistry& operator=(const TlsRegistry&) = delete;

    std::uint16_t port() const { return port_; }
    std::string file(const std::string& name) const { return folder_ + "/" + name; }

  private:
    static std::string makeFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "orvx-tls-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no folder for certificates");
        }
        return pattern;
    }
    static std::vector<std::string> arguments(const std::string& folder, const std::string& subject,
                                              const std::string& option) {
        std::vector<std::string> all{"python3", ORVX_TLS_REGISTRY, folder, subject};
        if (!option.empty()) {
            all.push_back(option);
        }
        return all;
    }

    const std::string folder_ = makeFolder();
    registry::ChildProcess process_;
    std::uint16_t port_ = 0;
};

const std::string kThisHost = "IP:127.0.0.1";

/// "OK", or the communication status of a registration that failed.
std::string outcomeWith(const communication::TlsConfig& tls, std::uint16_t port) {
    OrvServiceRegistryContext context;
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context.enableRetry(false);
    context.enableCheck(false);
    communication::HttpConfig http;
    http.tls = tls;
    http.requestTimeout = 10s;
    context.setHttpConfig(http);
    context.init();
    const auto outcome = context.getServiceRegistryClient()->registerServiceAtRegistry(
        common::ServiceInfo("registry", "127.0.0.1", port), service("lamp"));
    return outcome.response.status == OrvRegistrationResponse::OK
               ? "OK"
               : communicationStatusToString(
                     outcome.response.httpResponse->getCommunicationStatus());
}

communication::TlsConfig trusting(const TlsRegistry& registry) {
    communication::TlsConfig tls;
    tls.enabled = true;
    tls.authorityFile = registry.file("authority.pem");
    return tls;
}

TEST(Tls, IsSpokenWithARegistryOfATrustedAuthority) {
    const TlsRegistry registry(kThisHost);
    EXPECT_EQ(outcomeWith(trusting(registry), registry.port()), "OK");
}

TEST(Tls, EndsAtARegistryOfAnUnknownAuthority) {
    const TlsRegistry registry(kThisHost);
    communication::TlsConfig tls;
    tls.enabled = true;
    EXPECT_EQ(outcomeWith(tls, registry.port()), "TLS_FAILED");
}

TEST(Tls, EndsAtARegistryOfAnotherName) {
    const TlsRegistry registry("DNS:elsewhere");
    EXPECT_EQ(outcomeWith(trusting(registry), registry.port()), "TLS_FAILED");
}

TEST(Tls, VerifiesNothingWhenThatIsSwitchedOffByName) {
    const TlsRegistry registry("DNS:elsewhere");
    communication::TlsConfig tls;
    tls.enabled = true;
    tls.disableServerVerification = true;
    EXPECT_EQ(outcomeWith(tls, registry.port()), "OK");
}

TEST(Tls, ShowsTheClientsCertificateToARegistryThatWantsOne) {
    const TlsRegistry registry(kThisHost, "client-certificate");
    communication::TlsConfig tls = trusting(registry);
    EXPECT_NE(outcomeWith(tls, registry.port()), "OK");
    tls.clientCertificateFile = registry.file("client.pem");
    tls.clientKeyFile = registry.file("client.key");
    EXPECT_EQ(outcomeWith(tls, registry.port()), "OK");
}

TEST(Tls, IsNotSpokenWithAPlainRegistry) {
    const registry::RunningRegistry plain;
    communication::TlsConfig tls;
    tls.enabled = true;
    EXPECT_EQ(outcomeWith(tls, plain.port()), "TLS_FAILED");
}

TEST(Tls, IsNotLeftOutTowardsARegistryThatWantsIt) {
    const TlsRegistry registry(kThisHost);
    EXPECT_NE(outcomeWith(communication::TlsConfig(), registry.port()), "OK");
}

}  // namespace
}  // namespace orvx::serviceregistryclient
