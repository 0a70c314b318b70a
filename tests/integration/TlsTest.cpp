// TLS against a real server with authorities and certificates made for the test: which servers are
// trusted, that each failure is handled like that of any other request, that an untrusted registry
// receives no part of a request, and that the client continues when the registry is trusted again.
//
// Entered by the test's thread and the client's; the registry is a child process. No lock.
#include "ChildProcess.h"
#include "Folder.h"
#include "IntegrationTest.h"
#include "Paths.h"

#include <orvx/utility/OrvFoundationException.h>

#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <ostream>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Values;

/// A registry over TLS as a child process, with its certificates in its own folder, and a fault
/// that can be removed and restored.
class TlsRegistry {
  public:
    explicit TlsRegistry(const std::string& fault = "None")
        : process_("/usr/bin/env", {"python3", paths::kTlsRegistry, folder_.path(), fault}) {
        const std::string& output = process_.awaitOutput(".");
        port_ = static_cast<std::uint16_t>(std::stoi(output.substr(std::string("port ").size())));
    }

    common::ServiceInfo address() const { return {"registry", "127.0.0.1", port_}; }
    std::string file(const std::string& name) const { return folder_.file(name); }

    void turnGood() { turn(SIGUSR1); }
    void turnBad() { turn(SIGUSR2); }
    /// Waits until the registry has received this request. Returns all requests that it has
    /// received.
    std::string seenWhenThereIs(const std::string& request) {
        return process_.awaitOutput("saw " + request + ".");
    }
    std::string seenSoFar() { return process_.awaitOutput("port"); }
    void awaitAFailure() { process_.awaitOutput("failed: "); }

  private:
    void turn(int signal) {
        process_.signal(signal);
        process_.awaitOutput("turned " + std::to_string(++turns_) + ".");
    }

    const testing::Folder folder_;
    registry::ChildProcess process_;
    std::uint16_t port_ = 0;
    int turns_ = 0;
};

communication::TlsConfig enabled() {
    communication::TlsConfig tls;
    tls.enabled = true;
    return tls;
}

communication::TlsConfig trusting(const TlsRegistry& registry) {
    communication::TlsConfig tls = enabled();
    tls.authorityFile = registry.file("authority.pem");
    return tls;
}

communication::TlsConfig identifiedTo(const TlsRegistry& registry) {
    communication::TlsConfig tls = trusting(registry);
    tls.clientCertificateFile = registry.file("client.pem");
    tls.clientKeyFile = registry.file("client.key");
    return tls;
}

class Tls : public ::testing::Test {
  protected:
    Tls() {
        context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context.enableRetry(false);
        context.enableCheck(false);
    }
    void start(const communication::TlsConfig& tls) {
        http.tls = tls;
        context.setHttpConfig(http);
        context.init();
        context.getServiceRegistryClient()->addServiceRegisterStatusListener(
            [this](const auto& /*service*/, bool isThere) { notifications.write(isThere); });
    }
    /// "OK", or the communication status of a failure.
    static std::string describe(const OrvRegistrationResponse& outcome) {
        return outcome.status == OrvRegistrationResponse::OK
                   ? "OK"
                   : communicationStatusToString(outcome.httpResponse->getCommunicationStatus());
    }
    std::string outcomeOfPut(const common::ServiceInfo& where, const std::string& name) {
        auto outcome =
            context.getServiceRegistryClient()->registerServiceAtRegistry(where, service(name));
        unregister = outcome.unregister;
        return describe(outcome.response);
    }
    std::string outcomeWith(const communication::TlsConfig& tls, const TlsRegistry& registry) {
        start(tls);
        return outcomeOfPut(registry.address(), "lamp");
    }

    utility::test::Journal<bool> notifications;
    communication::HttpConfig http;
    OrvServiceRegistryContext context;
    std::function<OrvRegistrationResponse()> unregister;
};

TEST_F(Tls, IsSpokenWithARegistryOfATrustedAuthority) {
    const TlsRegistry registry;
    EXPECT_EQ(outcomeWith(trusting(registry), registry), "OK");
}

TEST_F(Tls, EndsAtARegistryOfNoAuthorityOfTheSystem) {
    const TlsRegistry registry;
    EXPECT_EQ(outcomeWith(enabled(), registry), "TLS_FAILED");
}

TEST_F(Tls, EndsAtARegistryThatOnlyTheEnvironmentTrusts) {
    const TlsRegistry registry;
    for (const char* const name : {"SSL_CERT_FILE", "CURL_CA_BUNDLE"}) {
        ::setenv(name, registry.file("authority.pem").c_str(), 1);
    }
    EXPECT_EQ(outcomeWith(enabled(), registry), "TLS_FAILED");
    for (const char* const name : {"SSL_CERT_FILE", "CURL_CA_BUNDLE"}) {
        ::unsetenv(name);
    }
}

TEST_F(Tls, IgnoresTheProxyOfTheEnvironment) {
    const TlsRegistry registry;
    const testing::RefusedPort proxy;
    const std::string url = "http://127.0.0.1:" + std::to_string(proxy.port());
    for (const char* const name : {"https_proxy", "HTTPS_PROXY"}) {
        ::setenv(name, url.c_str(), 1);
    }
    EXPECT_EQ(outcomeWith(trusting(registry), registry), "OK");
    for (const char* const name : {"https_proxy", "HTTPS_PROXY"}) {
        ::unsetenv(name);
    }
}

TEST_F(Tls, IsNotBegunWithoutTheFileOfAuthorities) {
    communication::TlsConfig tls = enabled();
    tls.authorityFile = "/missing/authority.pem";
    try {
        start(tls);
        FAIL() << "start() accepted a missing file";
    } catch (const utility::OrvFoundationException& mistake) {
        EXPECT_STREQ(mistake.what(),
                     "HttpConfig::tls.authorityFile: /missing/authority.pem cannot be read: "
                     "No such file or directory.");
    }
}

TEST_F(Tls, EndsWhileTheFileOfAuthoritiesIsMissing) {
    const TlsRegistry registry;
    const std::string file = registry.file("authority.pem");
    start(trusting(registry));
    std::filesystem::rename(file, file + ".away");
    EXPECT_EQ(outcomeOfPut(registry.address(), "lamp"), "TLS_FAILED");
    std::filesystem::rename(file + ".away", file);
    EXPECT_EQ(outcomeOfPut(registry.address(), "lamp"), "OK");
}

TEST_F(Tls, AsksNobodyForThePasswordOfAKeyThatGotOne) {
    const TlsRegistry registry;
    start(identifiedTo(registry));
    const std::string key = registry.file("client.key");
    const auto made =
        registry::ChildProcess("/usr/bin/openssl", {"pkcs8", "-topk8", "-in", key, "-out",
                                                    key + ".new", "-passout", "pass:secret"})
            .wait();
    ASSERT_EQ(made.status, 0) << made.errors;
    std::filesystem::rename(key + ".new", key);
    EXPECT_EQ(outcomeOfPut(registry.address(), "lamp"), "TLS_FAILED");
}

TEST_F(Tls, EndsWithoutTheClientsOwnCertificate) {
    TlsRegistry registry;
    communication::TlsConfig tls = identifiedTo(registry);
    tls.clientKeyFile = registry.file("authority.key");
    EXPECT_EQ(outcomeWith(tls, registry), "TLS_FAILED");
    EXPECT_THAT(registry.seenSoFar(), Not(HasSubstr("saw")));
}

TEST_F(Tls, VerifiesNothingWhenThatIsSwitchedOffByName) {
    const TlsRegistry registry("OfAnotherName");
    communication::TlsConfig tls = enabled();
    tls.disableServerVerification = true;
    EXPECT_EQ(outcomeWith(tls, registry), "OK");
}

TEST_F(Tls, IsSpokenInTheProtocolThatBothKnow) {
    const TlsRegistry registry("SecondNewestProtocol");
    EXPECT_EQ(outcomeWith(trusting(registry), registry), "OK");
}

TEST_F(Tls, IsNotSpokenInAnOlderProtocolThanTheConfiguredOne) {
    TlsRegistry registry("SecondNewestProtocol");
    communication::TlsConfig tls = trusting(registry);
    tls.lowestVersion = communication::TlsConfig::Version::Tls13;
    EXPECT_EQ(outcomeWith(tls, registry), "TLS_FAILED");
    registry.turnGood();
    EXPECT_EQ(outcomeOfPut(registry.address(), "lamp"), "OK");
}

TEST_F(Tls, ShowsTheClientsCertificateToARegistryThatWantsOne) {
    const TlsRegistry registry("WantsACertificate");
    EXPECT_EQ(outcomeWith(identifiedTo(registry), registry), "OK");
}

TEST_F(Tls, IsNotSpokenWithAPlainRegistry) {
    const registry::RunningRegistry plain;
    start(enabled());
    const common::ServiceInfo there("registry", "127.0.0.1", plain.port());
    EXPECT_EQ(outcomeOfPut(there, "lamp"), "TLS_FAILED");
    EXPECT_EQ(entriesAt(plain.port()), json::array());
}

TEST_F(Tls, IsNotLeftOutTowardsARegistryThatWantsIt) {
    TlsRegistry registry;
    EXPECT_THAT(outcomeWith({}, registry), AnyOf("RECEIVE_FAILED", "MALFORMED"));
    registry.awaitAFailure();
    EXPECT_THAT(registry.seenSoFar(), Not(HasSubstr("saw PUT /lamp")));
}

TEST_F(Tls, EndsWithoutAFarewellAndStillAnAnswerMustBeWhole) {
    const TlsRegistry registry;
    start(trusting(registry));
    EXPECT_EQ(outcomeOfPut(registry.address(), "cut"), "CUT_SHORT");
    EXPECT_EQ(outcomeOfPut(registry.address(), "lamp"), "OK");
}

TEST_F(Tls, SurvivesAHandshakeThatIsCutAnywhere) {
    TlsRegistry registry("CutsALittleLaterEachTime");
    context.enableRetry(true);
    context.setRetryInterval(1ms);
    context.setInitialMaxRetryCount(1000);
    EXPECT_EQ(outcomeWith(trusting(registry), registry), "OK");
    EXPECT_THAT(registry.seenWhenThereIs("PUT /lamp"), HasSubstr("turned 1."));
    EXPECT_THAT(registry.seenSoFar(), Not(HasSubstr("saw PUT in plain text")));
}

struct Fault {
    std::string name;
    ::testing::Matcher<std::string> status = "TLS_FAILED";
};

void PrintTo(const Fault& fault, std::ostream* stream) {
    *stream << fault.name;
}

std::string nameOf(const ::testing::TestParamInfo<Fault>& info) {
    return info.param.name;
}

class AFaultyTlsRegistry : public Tls, public ::testing::WithParamInterface<Fault> {
  protected:
    AFaultyTlsRegistry() {
        if (GetParam().status.Matches("TIMED_OUT")) {
            http.connectTimeout = 1500ms;  // also limits handshakes
        }
    }

    TlsRegistry registry{GetParam().name};
};

TEST_P(AFaultyTlsRegistry, GetsNoRequestAndIsUsedWhenItIsGood) {
    EXPECT_THAT(outcomeWith(trusting(registry), registry), GetParam().status);
    registry.turnGood();
    EXPECT_EQ(outcomeOfPut(registry.address(), "good"), "OK");
    EXPECT_EQ(describe(unregister()), "OK");
    const std::string seen = registry.seenWhenThereIs("DELETE /good");
    EXPECT_EQ(seen.find("saw"), seen.find("saw PUT /good.")) << seen;
}

INSTANTIATE_TEST_SUITE_P(
    Certificate, AFaultyTlsRegistry,
    Values(Fault{"Expired"}, Fault{"NotYetValid"}, Fault{"OfAnotherName"},
           Fault{"OfAnotherAddress"}, Fault{"OfThisNameInItsSubjectOnly"},
           Fault{"OfAnUnknownAuthority"}, Fault{"SelfSigned"}, Fault{"ForClientsOnly"},
           // With TLS 1.3 the client's handshake is complete before the registry checks the
           // client's certificate.
           Fault{"WantsACertificate", AnyOf("TLS_FAILED", "SEND_FAILED", "RECEIVE_FAILED")},
           Fault{"WantsACertificateInTheHandshake"}),
    nameOf);
INSTANTIATE_TEST_SUITE_P(Handshake, AFaultyTlsRegistry,
                         Values(Fault{"OldProtocol"}, Fault{"Silent", "TIMED_OUT"},
                                Fault{"StopsAfterItsHello", "TIMED_OUT"},
                                Fault{"StopsBeforeItsLastByte", "TIMED_OUT"}, Fault{"EndsAtOnce"},
                                Fault{"EndsAfterItsHello"}, Fault{"BreaksAtOnce"}, Fault{"Refuses"},
                                Fault{"TalksGarbage"}, Fault{"SpeaksPlainHttp"}),
                         nameOf);

class ATlsRegistryThatTurnsBad : public AFaultyTlsRegistry {};

TEST_P(ATlsRegistryThatTurnsBad, GetsNoWithdrawal) {
    registry.turnGood();
    EXPECT_EQ(outcomeWith(trusting(registry), registry), "OK");
    registry.turnBad();
    EXPECT_THAT(describe(unregister()), GetParam().status);
    EXPECT_THAT(describe(unregister()), GetParam().status);
    registry.turnGood();
    EXPECT_THAT(registry.seenSoFar(), Not(HasSubstr("DELETE")));
    EXPECT_EQ(describe(unregister()), "OK");
    EXPECT_THAT(registry.seenWhenThereIs("DELETE /lamp"), HasSubstr("saw PUT /lamp."));
}

TEST_P(ATlsRegistryThatTurnsBad, GetsNoCheck) {
    context.enableCheck(true);
    context.setCheckInterval(0s);
    context.setHeadTimeout(1min);
    registry.turnGood();
    EXPECT_EQ(outcomeWith(trusting(registry), registry), "OK");
    registry.seenWhenThereIs("HEAD /lamp");
    registry.turnBad();
    registry.awaitAFailure();
    const std::string whileBad = registry.seenSoFar();
    EXPECT_THAT(whileBad.substr(whileBad.find("turned 2.")), Not(HasSubstr("saw")));
    registry.turnGood();
    EXPECT_EQ(notifications.await(3), (std::vector<bool>{true, false, true}))
        << "the loss during the fault is found after it";
}

INSTANTIATE_TEST_SUITE_P(Later, ATlsRegistryThatTurnsBad,
                         Values(Fault{"Expired"}, Fault{"SelfSigned"}), nameOf);

}  // namespace
}  // namespace orvx::serviceregistryclient
