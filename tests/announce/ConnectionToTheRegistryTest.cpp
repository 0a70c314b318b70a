// TLS, tokens, proxies and Unix sockets between the program and the registry. Entered by the test's
// thread and those of its servers; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"

namespace orvx::announce {
namespace {

class TheConnectionToTheRegistry : public AnnounceTest {
  protected:
    /// The options of the service "echo", whose uri is /echo, at this registry.
    Words at(const std::string& url) const {
        const std::string port = std::to_string(service.port());
        return {"--registry", url, "--name", "echo", "--port", port, "--uri", "/echo"};
    }

    const Folder folder;
};

TEST_F(TheConnectionToTheRegistry, MayUseTlsWithAClientCertificate) {
    ChildProcess secure("/usr/bin/env",
                        {"python3", paths::kTlsRegistry, folder.file(""), "WantsACertificate"});
    const std::string& output = secure.awaitOutput(".");
    const auto port = std::stoi(output.substr(std::string("port ").size()));
    Announce announce(at("https://127.0.0.1:" + std::to_string(port)) +
                      Words{"--ca-file", folder.file("authority.pem"), "--client-cert",
                            folder.file("client.pem"), "--client-key", folder.file("client.key")});
    announce.awaitOutput(" announced ");
    announce.stopped(0);
    secure.awaitOutput("saw DELETE /echo.");
}

TEST_F(TheConnectionToTheRegistry, RefusesAnUntrustedCertificate) {
    ChildProcess secure("/usr/bin/env", {"python3", paths::kTlsRegistry, folder.file(""), "None"});
    const std::string& output = secure.awaitOutput(".");
    const auto port = std::stoi(output.substr(std::string("port ").size()));
    Announce announce(at("https://127.0.0.1:" + std::to_string(port)));
    announce.awaitOutput(" unreachable reason=\"PUT: TLS_FAILED: TLS with 127.0.0.1:" +
                         std::to_string(port) + " failed: self-signed certificate in");
    announce.stopped(1);
    EXPECT_THAT(secure.awaitOutput("failed: "), Not(HasSubstr("saw")));
}

TEST_F(TheConnectionToTheRegistry, ReportsTheNameOfAnUnknownHost) {
    ChildProcess announce("/usr/bin/env",
                          Words{"LD_PRELOAD=" + std::string(paths::kHangingLookup),
                                "ASAN_OPTIONS=verify_asan_link_order=0", paths::kAnnounceProgram} +
                              at("http://a.unknown.test:8500"));
    announce.awaitOutput(
        " unreachable reason=\"PUT: RESOLVE_FAILED: the host a.unknown.test is not known\" ");
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
}

TEST_F(TheConnectionToTheRegistry, CarriesATokenThatMayBeReplaced) {
    front.onRequest([this](const Request& request) {
        return request.header("Authorization") == "Bearer violet-2"
                   ? passOn(request, registry.port())
                   : testing::response(401);
    });
    const auto file = folder.write("token", "violet-1\n");
    Announce announce(at(urlOf(front.port())) + Words{"--token-file", file} +
                      shell("trap : HUP; echo up; read line; read line"));
    announce.awaitOutput("up\n");
    announce.awaitErrors(" refused ");
    EXPECT_EQ(front.requests().at(0).header("Authorization"), "Bearer violet-1");
    folder.write("token", "violet-2\n");
    announce.signal(SIGHUP);
    const std::string errors = announce.awaitErrors(" announced ");
    EXPECT_THAT(errors, Not(HasSubstr("violet")));
    announce.endInput();
    announce.ended(1);
    EXPECT_TRUE(entries().empty());
}

TEST_F(TheConnectionToTheRegistry, KeepsItsTokenWhenTheFileIsInvalid) {
    const auto file = folder.write("token", "first");
    passOnInFront();
    Announce announce(at(urlOf(front.port())) + Words{"--token-file", file});
    announce.awaitOutput(" announced ");
    folder.write("token", "");
    announce.signal(SIGHUP);
    announce.awaitOutput(" no-token ");
    announce.stopped(0);
    EXPECT_EQ(front.requests().back().header("Authorization"), "Bearer first");
}

TEST_F(TheConnectionToTheRegistry, MayUseAProxy) {
    front.onRequest([](const Request& request) {
        return testing::response(request.method == "PUT" ? 201 : 200, {{"Location", "/1"}});
    });
    Announce announce(at("http://registry.invalid:8500") + Words{"--proxy", urlOf(front.port())});
    announce.awaitOutput(" announced ");
    EXPECT_EQ(front.requests().at(0).target, "http://registry.invalid:8500/echo");
    announce.stopped(0);
}

TEST_F(TheConnectionToTheRegistry, MayUseAUnixSocket) {
    const auto socket = folder.file("socket");
    ChildProcess local(
        "/usr/bin/env",
        {"python3", std::string(paths::kAnnounceTests) + "/unix_registry.py", socket});
    local.awaitOutput("up\n");
    Announce announce(at("http://registry.invalid") + Words{"--unix-socket", socket});
    announce.awaitOutput(" announced ");
    announce.stopped(0);
    local.awaitOutput("PUT /echo of registry.invalid\n");
    local.awaitOutput("DELETE /1 of registry.invalid\n");
}

}  // namespace
}  // namespace orvx::announce
