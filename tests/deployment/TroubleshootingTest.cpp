// Each symptom of the page, caused with real processes. The lines that the page quotes are lines
// that the library logs, that the page's own function prints, or that another program prints. Each
// test is named after the heading of its section. Entered by the test's thread and the clients';
// servers are child processes. No lock.
#include "DeadResolver.h"
#include "IntegrationTest.h"
#include "RawConnection.h"
#include "RegistryProcess.h"
#include "Servers.h"

#include <orvx/utility/OrvFoundationException.h>
#include <orvx/utility/TimedConsoleLoggerFactory.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <regex>
#include <set>

namespace orvx::serviceregistryclient {
namespace {

#include "page.inc"  // kPage, and the page's function print()

using communication::HttpCredentials;
using testing::CertificateFolder;
using testing::Nginx;
using testing::RefusedPort;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// For example "ANameNotKnown" for "A name, not known".
std::string inCamelCase(const std::string& heading) {
    std::string name;
    bool isBegin = true;
    for (const char c : heading) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
            name += isBegin ? static_cast<char>(std::toupper(c)) : c;
        }
        isBegin = c == ' ' || c == '-';
    }
    return name;
}

/// The quoted lines by the name of the section. Sections without quoted lines are absent.
std::map<std::string, std::vector<std::string>> quotedOutput() {
    std::map<std::string, std::vector<std::string>> quoted;
    std::string section;
    bool isOutput = false;
    for (const std::string& line : linesOf(kPage)) {
        if (line.rfind("## ", 0) == 0) {
            section = inCamelCase(line.substr(3));
        } else if (line.rfind("```", 0) == 0) {
            isOutput = line == "```text";
        } else if (isOutput) {
            quoted[section].push_back(line);
        }
    }
    return quoted;
}

class Troubleshooting : public ::testing::Test {
  protected:
    Troubleshooting() {
        context.setLoggerFactory(log);
        context.enableResilience(true);
        context.setCheckInterval(1s);
        context.setHeadTimeout(10s);
        context.setRetryInterval(10ms);
    }

    void start() {
        context.setHttpConfig(http);
        context.init();
    }
    void announce(std::uint16_t port, IOrvServiceRegistryClient::ResponseCallback callback = {}) {
        port_ = port;
        context.getServiceRegistryClient()->registerServiceAtRegistry(
            {"registry", host, port}, service("echo"), std::move(callback));
    }
    void setFaults(const std::string& faults) {
        const auto answer = registry::RawConnection(registry.port())
                                .ask(registry::makeRequest("PUT", "/-/faults", faults));
        EXPECT_EQ(answer.result_int(), 200U) << answer.body();
    }

    std::string metricsOfTheRegistry() {
        return registry::RawConnection(registry.port())
            .ask(registry::makeRequest("GET", "/-/metrics"))
            .body();
    }

    /// Records all output of now: new log lines, and the registrations as the page prints them.
    void look() {
        static const char* const levels[] = {"ERROR ", "WARNING ", "INFO ", "DEBUG "};
        for (const auto& line : log->takeLines()) {
            see(levels[line.level] + line.text);
        }
        std::ostringstream printed;
        print(context, printed);
        see(printed.str());
    }
    /// Records each line, with 8500 in place of the registry's port, as on the page.
    void see(const std::string& lines) {
        const std::regex port("127.0.0.1:" + std::to_string(port_));
        for (const std::string& line : linesOf(lines)) {
            seen_.insert(std::regex_replace(line, port, "127.0.0.1:8500"));
        }
    }
    bool isSeen(const std::string& part) const {
        return std::any_of(seen_.begin(), seen_.end(), [&](const std::string& line) {
            return line.find(part) != std::string::npos;
        });
    }
    std::string seen() const {
        std::string lines;
        for (const std::string& line : seen_) {
            lines += line + '\n';
        }
        return lines;
    }
    /// The quoted lines of the section with the test's name.
    static std::vector<std::string> quoted() {
        return quotedOutput()[::testing::UnitTest::GetInstance()->current_test_info()->name()];
    }
    void expectQuotedOutput(const std::function<void()>& lookElsewhere = [] {}) {
        EXPECT_FALSE(quoted().empty());
        for (const std::string& line : quoted()) {
            EXPECT_TRUE(eventually([&] {
                look();
                lookElsewhere();
                return isSeen(line);
            })) << line
                << "\nis not in\n"
                << seen();
        }
    }
    void expectAnnounced() {
        EXPECT_TRUE(eventually([this] {
            const auto all = context.getRegistrations();
            return !all.empty() && std::all_of(all.begin(), all.end(), [](const auto& one) {
                return one.state == RegistrationStatus::State::Announced;
            });
        })) << seen();
    }

    std::shared_ptr<testing::RecordingLoggerFactory> log =
        std::make_shared<testing::RecordingLoggerFactory>();
    const CertificateFolder folder;
    registry::RegistryProcess registry{{"--port", "0", "--admin", "--log", folder.file("log")}};
    std::string host = "127.0.0.1";
    communication::HttpConfig http;
    OrvServiceRegistryContext context;

  private:
    std::uint16_t port_ = 0;
    std::set<std::string> seen_;
};

TEST_F(Troubleshooting, TheRegistryRefusesConnections) {
    const RefusedPort refused;
    start();
    announce(refused.port());
    expectQuotedOutput();
}

TEST_F(Troubleshooting, TheRegistryDoesNotAnswer) {
    http.requestTimeout = 500ms;
    setFaults(R"({"fault":"delay","milliseconds":600000})");
    start();
    announce(registry.port());
    expectQuotedOutput();
    setFaults("");
    expectAnnounced();
}

TEST_F(Troubleshooting, TheNameOfTheRegistryIsNotKnown) {
    const testing::DeadResolver resolver;
    host = "registry.unknown.test";
    start();
    announce(8500);
    expectQuotedOutput();
}

TEST_F(Troubleshooting, TheHostOfTheRegistryIsAURL) {
    host = "https://x";
    start();
    EXPECT_EQ(outcomeOf([&](auto callback) { announce(8500, std::move(callback)); }),
              "ERROR/SERVICE_REGISTRY_ERROR");
    expectQuotedOutput();
    EXPECT_TRUE(context.getRegistrations().empty());
}

TEST_F(Troubleshooting, TheRegistryRefusesTheToken) {
    const Nginx nginx(folder, registry.port(),
                      {false, R"(if ($http_authorization != "Bearer good") { return 401; })", ""});
    setFaults(R"({"fault":"status","status":403,"method":"PUT","requests":1})");
    http.credentials = std::make_shared<HttpCredentials>();
    http.credentials->setBearerToken("old");
    start();
    announce(nginx.port());
    const auto outcome = [&] {
        return outcomeOf([&](auto callback) { announce(nginx.port(), std::move(callback)); });
    };
    EXPECT_EQ(outcome(), "ERROR/SERVICE_REGISTRY_ERROR") << "401";
    http.credentials->setBearerToken("good");
    EXPECT_EQ(outcome(), "ERROR/SERVICE_REGISTRY_ERROR") << "403";
    expectQuotedOutput();
    EXPECT_TRUE(context.getRegistrations().empty());
    EXPECT_EQ(outcome(), "OK/NONE");
}

TEST_F(Troubleshooting, TheEntryIsLost) {
    start();
    announce(registry.port());
    expectAnnounced();
    setFaults(R"({"fault":"forget"})");
    expectQuotedOutput([this] { see(metricsOfTheRegistry()); });
    expectAnnounced();
}

/// nginx with a certificate that the client does not accept.
class TroubleshootingOfTls : public Troubleshooting {
  protected:
    TroubleshootingOfTls() {
        folder.makeAuthority("authority");
        folder.makeCertificate("server", "authority");
        http.tls.enabled = true;
        http.tls.authorityFile = folder.file("authority.pem");
    }
    void expectQuotedOutputOfTls() {
        const Nginx nginx(folder, registry.port(), {true, "", ""});
        start();
        announce(nginx.port());
        expectQuotedOutput();
    }
};

TEST_F(TroubleshootingOfTls, TheAuthorityOfTheCertificateIsNotTrusted) {
    folder.makeAuthority("another");
    http.tls.authorityFile = folder.file("another.pem");
    expectQuotedOutputOfTls();
}

TEST_F(TroubleshootingOfTls, TheCertificateHasExpired) {
    folder.makeExpiredCertificate("server", "authority");
    expectQuotedOutputOfTls();
}

TEST_F(TroubleshootingOfTls, TheCertificateIsForAnotherName) {
    folder.makeCertificate("server", "authority", "DNS:registry.example.com");
    expectQuotedOutputOfTls();
}

TEST_F(Troubleshooting, TwoInstancesUseOnePath) {
    OrvServiceRegistryContext other;
    other.setLoggerFactory(log);
    other.init();
    start();
    const auto announced = [&](auto& instance, const std::string& address) {
        auto& client = *instance.getServiceRegistryClient();
        return client
            .registerServiceAtRegistry({"registry", host, registry.port()},
                                       client.getSharedServiceCreate({"echo", address, 8080}))
            .unregister;
    };
    announced(context, "10.0.0.1");
    const auto withdraw = announced(other, "10.0.0.2");
    expectQuotedOutput([this] {
        see(testing::contentOf(folder.file("log")));
        see(metricsOfTheRegistry());
    });
    EXPECT_EQ(text(withdraw()), "OK/NONE");
    EXPECT_TRUE(eventually([this] {
        look();
        return isSeen("automatic re-register with request: /echo");
    })) << "the entry of both is gone";
}

TEST_F(Troubleshooting, AServiceIsNotCheckedAnyMore) {
    setFaults(R"({"fault":"delay","milliseconds":200,"method":"HEAD"})");
    context.enableResilience(false);
    context.setCheckInterval(0s);
    context.setHeadTimeout(1s);
    start();
    announce(registry.port());
    expectQuotedOutput();
    EXPECT_FALSE(context.getRegistrations().at(0).nextAttempt) << "no check is planned";
}

TEST_F(Troubleshooting, CallbacksDoNotCome) {
    utility::test::Gate gate;
    utility::test::Journal<std::string> outcomes;
    start();
    announce(registry.port(), [&](const auto& /*outcome*/) { gate.pass(); });
    EXPECT_TRUE(gate.isEntered());
    announce(registry.port(), [&](const auto& outcome) { outcomes.write(text(outcome)); });
    expectQuotedOutput([&] {
        for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
            see(testing::contentOf(thread.path() / "comm"));
        }
    });
    expectAnnounced();
    EXPECT_TRUE(outcomes.notes().empty());
    gate.open();
    EXPECT_EQ(outcomes.await(1), std::vector<std::string>{"OK/NONE"});
}

TEST_F(Troubleshooting, LogLinesAreMissing) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const int standardError = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    ::dup2(ends[1], STDERR_FILENO);
    ::close(ends[1]);
    ASSERT_FALSE(quoted().empty());
    {
        utility::TimedConsoleLoggerFactory console(utility::ILogger::LogLevel::Info);
        const auto logger = console.createLogger("A", "B");
        for (int i = 0; i < 200; ++i) {
            logger->log(std::string(4000, '.'), 1);
        }
        pollfd reading{ends[0], POLLIN, 0};
        std::string text;
        while (text.find(quoted().front()) == std::string::npos &&
               ::poll(&reading, 1, 10000) == 1) {
            char bytes[4096];
            text.append(bytes, static_cast<std::size_t>(::read(ends[0], bytes, sizeof bytes)));
        }
        see(text);
    }
    ::dup2(standardError, STDERR_FILENO);
    ::close(standardError);
    ::close(ends[0]);
    expectQuotedOutput();
}

/// No descriptor can be opened while an object exists.
class NoDescriptors {
  public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none{0, before_.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

  private:
    rlimit before_{};
};

TEST_F(Troubleshooting, NoDescriptorIsLeft) {
    start();
    const std::uint16_t port = registry.port();
    {
        const NoDescriptors none;
        announce(port);
        expectQuotedOutput();
        OrvServiceRegistryContext late;
        EXPECT_THROW(late.init(), utility::OrvFoundationException);
    }
    expectAnnounced();
}

TEST(ThePageForTroubleshooting, HasATestForEachSection) {
    std::set<std::string> tests;
    const auto& all = *::testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); ++i) {
        const auto& suite = *all.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            if (std::string(suite.name()).rfind("Troubleshooting", 0) == 0) {
                tests.insert(suite.GetTestInfo(j)->name());
            }
        }
    }
    std::set<std::string> sections;
    for (const std::string& line : linesOf(kPage)) {
        if (line.rfind("## ", 0) == 0) {
            sections.insert(inCamelCase(line.substr(3)));
        }
    }
    EXPECT_EQ(tests, sections);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
