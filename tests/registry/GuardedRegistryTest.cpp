// Tests the program with tokens: where it listens, how much it reads of refused requests, how it
// reads its files again, and that no log contains a secret.
// Everything runs on the test's thread; the program is a process of its own.
// There is no lock.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/beast/http/status.hpp>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "RegistryProcess.h"
#include "RunningRegistry.h"
#include "TemporaryFolder.h"
#include "TokenLine.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

std::string requestAs(const std::string& token, const std::string& method,
                      const std::string& target, const std::string& body = {}) {
    const std::string request = makeRequest(method, target, body);
    const auto line = request.find("\r\n") + 2;
    return request.substr(0, line) + "Authorization: Bearer " + token + "-secret\r\n" +
           request.substr(line);
}

class AGuardedRegistry : public ::testing::Test {
  protected:
    std::string write(const char* name, const std::string& text) const {
        std::ofstream(folder_ / name) << text;
        return folder_ / name;
    }

    static std::string contentOf(const std::string& path) {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static RegistryProcess::Result run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--port", "0"});
        return RegistryProcess(arguments).wait();
    }

    const TemporaryFolder folder_;
    const std::string tokens_ =
        write("tokens", tokenLine("lamps", R"("announce":"/lamps","read":true)") +
                            tokenLine("admin", R"("administer":true)"));
};

bool exitedWith(const RegistryProcess::Result& result, int code) {
    return WIFEXITED(result.status) && WEXITSTATUS(result.status) == code;
}

TEST_F(AGuardedRegistry, IsRequiredForAnAddressOtherThanLoopback) {
    for (const char* host : {"0.0.0.0", "::"}) {
        const auto result = run({"--host", host});
        EXPECT_TRUE(exitedWith(result, 125)) << result.status;
        EXPECT_THAT(result.errors,
                    HasSubstr(std::string("at ") + host + " anybody could announce"));
        EXPECT_THAT(result.output, IsEmpty());
    }
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{"--open"}, std::vector<std::string>{"--tokens", tokens_}}) {
        std::vector<std::string> arguments{"--host", "0.0.0.0", "--port", "0"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        RegistryProcess program(arguments);
        EXPECT_GT(program.port(), 0);
    }
    RegistryOptions withoutTls;
    withoutTls.host = "0.0.0.0";
    withoutTls.port = 0;
    withoutTls.tls.authority = tokens_;  // verifies nobody without TLS
    EXPECT_THROW(RegistryServer{withoutTls}, std::runtime_error);
    RegistryProcess elsewhereAtLoopback({"--host", "127.0.0.2", "--port", "0"});
    EXPECT_GT(elsewhereAtLoopback.port(), 0);
}

TEST_F(AGuardedRegistry, RefusesInvalidTokenFilesAndOptions) {
    EXPECT_THAT(run({"--tokens", folder_ / "none"}).errors,
                HasSubstr("none: it cannot be read: No such file or directory"));
    EXPECT_THAT(run({"--tokens", write("bad", "\nhunter2\n")}).errors,
                AllOf(HasSubstr("bad: line 2: not a JSON object"), Not(HasSubstr("hunter2"))));
    EXPECT_THAT(run({"--client-ca", "x"}).errors, HasSubstr("--tls-cert"));
    EXPECT_THAT(run({"--tls-key", "x"}).errors, HasSubstr("--tls-cert"));
    EXPECT_THAT(run({"--audit", folder_ / "none/audit"}).errors, HasSubstr("No such file"));
}

TEST_F(AGuardedRegistry, RefusesAnEmptyValueOfAnyOption) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--host", "0.0.0.0", "--tls-cert", "", "--client-ca", tokens_},
          std::vector<std::string>{"--tls-cert", tokens_, "--tls-key", ""},
          std::vector<std::string>{"--tls-cert", tokens_, "--client-ca", ""},
          std::vector<std::string>{"--tokens", ""}, std::vector<std::string>{"--store", ""},
          std::vector<std::string>{"--script", ""}, std::vector<std::string>{"--audit", ""},
          std::vector<std::string>{"--log", ""}, std::vector<std::string>{"--host", ""},
          std::vector<std::string>{"--etcd", "http://127.0.0.1:1", "--etcd-prefix", ""},
          std::vector<std::string>{"list", "--token-file", "", "--registry", "http://127.0.0.1:1"},
          std::vector<std::string>{"watch", "--name", "", "--exec", "true"},
          std::vector<std::string>{"--store=", "--open"}, std::vector<std::string>{"--audit="},
          std::vector<std::string>{"--log=", "--open"},
          std::vector<std::string>{"--etcd", "http://127.0.0.1:1", "--etcd-prefix=", "--open"},
          std::vector<std::string>{"list", "--name=", "--json", "--registry", "http://127.0.0.1:1"},
          std::vector<std::string>{"watch", "--name=", "lamp", "--exec", "true"},
          std::vector<std::string>{"watch", "--exec", "--version", "1", "--name=", "lamp"}}) {
        const auto result = run(arguments);
        EXPECT_TRUE(exitedWith(result, 125)) << result.status;
        EXPECT_THAT(result.output, IsEmpty());
        EXPECT_THAT(result.errors, MatchesRegex("orvx-registry: [^\n]*the value is empty[^\n]*\n"));
    }
}

TEST(TheRegistryProgram, TakesDecimalNumbersOnly) {
    for (const std::string option :
         {"--port", "--rate", "--max-body", "--max-connections", "--max-entries", "--ttl"}) {
        for (const std::string number : {"010", "0x10", "+1"}) {
            // With --host it ends in any case, and never listens.
            const auto result = RegistryProcess({"--host", "0.0.0.0", option, number}).wait();
            EXPECT_TRUE(exitedWith(result, 125)) << result.status;
            EXPECT_EQ(result.errors, "orvx-registry: " + option + ": not a decimal number: " +
                                         number + " (orvx-registry --help lists the options)\n");
        }
    }
    const auto result = RegistryProcess({"--host", "0.0.0.0", "--port", "0", "--rate", "0"}).wait();
    EXPECT_THAT(result.errors, HasSubstr("anybody could announce"));
}

TEST_F(AGuardedRegistry, RefusesBeforeItReadsTheBody) {
    RegistryOptions options;
    options.tokens = tokens_;
    const RunningRegistry registry(options);
    for (const auto& [method, token, status] :
         {std::tuple{"PUT", "nobody", http::status::unauthorized},
          std::tuple{"PUT", "admin", http::status::forbidden},
          std::tuple{"POST", "admin", http::status::method_not_allowed}}) {
        for (const char* more : {"", "Expect: 100-continue\r\n"}) {
            RawConnection connection = registry.connect();
            connection.send(std::string(method) + " /lamps/1 HTTP/1.1\r\nAuthorization: Bearer " +
                            token + "-secret\r\nContent-Length: 1000000\r\n" + more + "\r\n");
            EXPECT_EQ(connection.receive().result(), status);
            EXPECT_TRUE(connection.isClosedByPeer());
        }
    }
}

TEST_F(AGuardedRegistry, TellsThatABodyIsTooLongToTheHoldersOfTokensOnly) {
    RegistryOptions options;
    options.tokens = tokens_;
    options.maxBody = 1'000;
    const RunningRegistry registry(options);
    const auto statusAs = [&](const std::string& token, const std::string& length) {
        RawConnection connection = registry.connect();
        connection.send("PUT /lamps/1 HTTP/1.1\r\nAuthorization: Bearer " + token +
                        "-secret\r\nContent-Length: " + length + "\r\n\r\n");
        const auto status = connection.receive().result();
        EXPECT_TRUE(connection.isClosedByPeer());
        return status;
    };
    for (const char* length : {"1001", "18446744073709551615"}) {
        EXPECT_EQ(statusAs("nobody", length), http::status::unauthorized);
        EXPECT_EQ(statusAs("admin", length), http::status::forbidden);
        EXPECT_EQ(statusAs("lamps", length), http::status::payload_too_large);
    }
}

TEST_F(AGuardedRegistry, ReadsNoBodyWithoutATokenWhereNoTokenIsNeeded) {
    RegistryOptions options;
    options.tokens = tokens_;
    const RunningRegistry registry(options);
    for (const std::string target : {"/-/health", "/-/ready"}) {
        const std::string line = "GET " + target + " HTTP/1.1\r\n";
        for (const char* body :
             {"Content-Length: 1000\r\n\r\n", "Transfer-Encoding: chunked\r\n\r\n"}) {
            RawConnection connection = registry.connect();
            connection.send(line + body);
            EXPECT_EQ(connection.receive().result(), http::status::unauthorized);
            EXPECT_TRUE(connection.isClosedByPeer());
        }
        RawConnection connection = registry.connect();
        connection.send(line + "Content-Length: 0\r\n\r\n");
        EXPECT_EQ(connection.receive().result(), http::status::ok);
    }
}

TEST_F(AGuardedRegistry, EndsAConnectionAfterARefusedRequestWhoseBodyHasNoKnownEnd) {
    RegistryOptions options;
    options.tokens = tokens_;
    const RunningRegistry registry(options);
    RawConnection connection = registry.connect();
    connection.send("GET / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n" +
                    requestAs("lamps", "PUT", "/lamps/1", "{}"));
    EXPECT_EQ(connection.receive().result(), http::status::unauthorized);
    EXPECT_TRUE(connection.isClosedByPeer());
}

TEST_F(AGuardedRegistry, KeepsAConnectionAfterARefusedRequestWithoutABody) {
    RegistryOptions options;
    options.tokens = tokens_;
    const RunningRegistry registry(options);
    RawConnection connection = registry.connect();
    connection.send(makeRequest("HEAD", "/") + makeRequest("GET", "/") +
                    requestAs("lamps", "PUT", "/lamps/1", "{}"));
    EXPECT_EQ(connection.receive(true).result(), http::status::unauthorized);
    EXPECT_EQ(connection.receive().result(), http::status::unauthorized);
    EXPECT_EQ(connection.receive().result(), http::status::created);
}

// Before, a client without a token kept its connections this way and ended those of other clients.
TEST_F(AGuardedRegistry, EndsAConnectionThatShowedNoValidTokenBeforeOneThatWasServed) {
    RegistryProcess registry({"--port", "0", "--tokens", tokens_, "--max-connections", "2"});
    for (const std::string& refused :
         {makeRequest("GET", "/"), requestAs("admin", "GET", "/"), makeRequest("GET", "/-/health"),
          makeRequest("GET", "/-/ready")}) {
        RawConnection hostile(registry.port());
        hostile.ask(refused);
        RawConnection honest(registry.port());
        EXPECT_EQ(honest.ask(requestAs("lamps", "GET", "/")).result(), http::status::ok);
        hostile.ask(refused);
        EXPECT_EQ(RawConnection(registry.port()).ask(requestAs("lamps", "GET", "/")).result(),
                  http::status::ok);
        EXPECT_TRUE(hostile.endsWithin(10s));
        EXPECT_EQ(honest.ask(requestAs("lamps", "GET", "/")).result(), http::status::ok);
    }
}

TEST_F(AGuardedRegistry, RefusesRequestsBeyondTheRate) {
    RegistryOptions options;
    options.rate = 1;
    const RunningRegistry registry(options);
    RawConnection connection = registry.connect();
    std::string requests;
    for (int i = 0; i < 30; ++i) {
        requests += makeRequest("GET", "/");
    }
    connection.send(requests);
    int refused = 0;
    for (int i = 0; i < 30; ++i) {
        const auto response = connection.receive();
        if (response.result() == http::status::too_many_requests) {
            ++refused;
            EXPECT_EQ(response[http::field::retry_after], "1");
        }
    }
    EXPECT_GE(refused, 15);
    EXPECT_LE(refused, 20);
}

TEST_F(AGuardedRegistry, CountsRequestsWithATooLongBodyForTheRate) {
    RegistryOptions options;
    options.rate = 1;
    const RunningRegistry registry(options);
    int refused = 0;
    for (int i = 0; i < 30; ++i) {
        RawConnection connection = registry.connect();
        const auto status =
            connection.ask("PUT /a HTTP/1.1\r\nContent-Length: 99999999\r\n\r\n").result();
        if (status == http::status::too_many_requests) {
            ++refused;
        } else {
            EXPECT_EQ(status, http::status::payload_too_large);
        }
    }
    EXPECT_GE(refused, 15);
    EXPECT_LE(refused, 20);
}

TEST_F(AGuardedRegistry, ReadsItsTokensAgainOnSighup) {
    RegistryProcess program({"--port", "0", "--tokens", tokens_});
    const auto port = program.port();
    RawConnection idle(port);
    EXPECT_EQ(idle.ask(requestAs("lamps", "GET", "/")).result(), http::status::ok);
    RawConnection watcher(port);
    watcher.send(requestAs("lamps", "GET", "/-/watch"));
    watcher.readUntil("event: listed\n");
    write("tokens", tokenLine("doors", R"("announce":"/doors","read":true)"));
    program.signal(SIGHUP);
    program.awaitOutput("orvx-registry has read its files again\n");
    EXPECT_TRUE(idle.isClosedByPeer());
    EXPECT_TRUE(watcher.endsWithin(std::chrono::seconds(10)));
    RawConnection connection(port);
    EXPECT_EQ(connection.ask(requestAs("lamps", "GET", "/")).result(), http::status::unauthorized);
    EXPECT_EQ(connection.ask(requestAs("doors", "GET", "/")).result(), http::status::ok);
}

TEST_F(AGuardedRegistry, CarriesOutNoRequestOfATokenThatWasWithdrawnBeforeTheEndOfTheBody) {
    for (const char* line : {"GET /-/watch", "PUT /lamps/1"}) {
        write("tokens", tokenLine("lamps", R"("announce":"/lamps","read":true)"));
        RegistryProcess program({"--port", "0", "--tokens", tokens_});
        RawConnection connection(program.port());
        connection.send(line + std::string(" HTTP/1.1\r\nAuthorization: Bearer lamps-secret\r\n"
                                           "Expect: 100-continue\r\nContent-Length: 2\r\n\r\n"));
        connection.readUntil("100 Continue\r\n\r\n");
        write("tokens", tokenLine("doors", R"("read":true)"));
        program.signal(SIGHUP);
        program.awaitOutput("orvx-registry has read its files again\n");
        EXPECT_EQ(connection.ask("{}").result(), http::status::unauthorized);
        EXPECT_TRUE(connection.isClosedByPeer());
        const auto list = RawConnection(program.port()).ask(requestAs("doors", "GET", "/"));
        EXPECT_THAT(list.body(), HasSubstr(R"("entries":[])"));
    }
}

TEST_F(AGuardedRegistry, ClosesAConnectionWhoseAnswerWasSentWhileItReadItsFilesAgain) {
    RegistryProcess program({"--port", "0", "--tokens", tokens_});
    const std::string service = R"({"a":")" + std::string(1'000'000, 'x') + R"("})";
    RawConnection(program.port()).ask(requestAs("lamps", "PUT", "/lamps/1", service));
    RawConnection reader(program.port(), 65'536);
    reader.send(requestAs("lamps", "GET", "/"));
    reader.readUntil("\r\n\r\n");
    program.signal(SIGHUP);
    program.awaitOutput("orvx-registry has read its files again\n");
    reader.readUntil("]}\r\n0\r\n\r\n");
    EXPECT_TRUE(reader.isClosedByPeer());
}

TEST_F(AGuardedRegistry, RefusesAFileThatIsNotARegularOne) {
    const std::string fifo = folder_ / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& file : {fifo, std::string("/dev/null"), std::string("/dev/stdin"),
                                    std::string("/proc/self/fd/0"), folder_ / "."}) {
        for (const char* option : {"--tokens", "--tls-cert", "--script"}) {
            const auto result = run({option, file});
            EXPECT_TRUE(exitedWith(result, 125)) << option << ' ' << file;
            EXPECT_THAT(result.errors, HasSubstr(' ' + file + ": it is not a regular file\n"));
        }
    }
}

TEST_F(AGuardedRegistry, ChangesNothingWhenAFileIsAFifoOnSighup) {
    RegistryProcess program({"--port", "0", "--tokens", tokens_});
    RawConnection connection(program.port());
    ASSERT_EQ(::unlink(tokens_.c_str()), 0);
    ASSERT_EQ(::mkfifo(tokens_.c_str(), 0600), 0);
    program.signal(SIGHUP);
    program.awaitErrors("tokens: it is not a regular file; nothing is taken over\n");
    EXPECT_EQ(connection.ask(requestAs("lamps", "GET", "/")).result(), http::status::ok);
}

TEST_F(AGuardedRegistry, ChangesNothingWhenAFileIsWrongOnSighup) {
    RegistryProcess program({"--port", "0", "--tokens", tokens_});
    RawConnection connection(program.port());
    EXPECT_EQ(connection.ask(requestAs("lamps", "GET", "/")).result(), http::status::ok);
    write("tokens", tokenLine("doors", R"("announce":"/doors","read":true)") + "hunter2\n");
    program.signal(SIGHUP);
    program.awaitErrors("tokens: line 2: not a JSON object; nothing is taken over\n");
    EXPECT_EQ(connection.ask(requestAs("lamps", "GET", "/")).result(), http::status::ok);
    EXPECT_EQ(connection.ask(requestAs("doors", "GET", "/")).result(), http::status::unauthorized);
    program.signal(SIGTERM);
    EXPECT_TRUE(exitedWith(program.wait(), 0));
}

TEST(ARegistryWithoutAGuard, EndsOnSighup) {
    RegistryProcess program({"--port", "0"});
    program.port();
    program.signal(SIGHUP);
    const auto result = program.wait();
    EXPECT_TRUE(WIFSIGNALED(result.status) && WTERMSIG(result.status) == SIGHUP);
}

TEST_F(AGuardedRegistry, WritesNoSecretToAnyLog) {
    const std::string log = folder_ / "log";
    const std::string audit = folder_ / "audit";
    RegistryProcess program({"--port", "0", "--admin", "--tokens", tokens_, "--log", log, "--audit",
                             audit, "--rate", "1000"});
    const auto port = program.port();
    RawConnection connection(port);
    for (const char* token : {"lamps", "admin", "unknown"}) {
        for (const char* method : {"GET", "HEAD", "DELETE", "POST", "EVIL"}) {
            for (const char* target : {"/", "/-/faults", "/none"}) {
                RawConnection(port).ask(requestAs(token, method, target));
            }
        }
        RawConnection(port).ask(requestAs(token, "PUT", "/lamps/1", R"({"host":"a","port":1})"));
        RawConnection(port).ask(requestAs(token, "PUT", "/lamps/..", "{}"));
        RawConnection(port).ask(requestAs(token, "PUT", "/lamps/1", "no JSON"));
        RawConnection(port).ask("GET / HTTP/1.1\r\nAuthorization: Bearer " + std::string(token) +
                                "-secret\r\nAuthorization broken\r\n\r\n");
        RawConnection(port).ask("GET / HTTP/1.1\r\nAuthorization: Bearer " + std::string(token) +
                                "-secret" + std::string(9'000, 'x') + "\r\n\r\n");
    }
    program.signal(SIGHUP);
    program.awaitOutput("again\n");
    program.signal(SIGTERM);
    const auto result = program.wait();
    for (const std::string& text :
         {contentOf(log), contentOf(audit), result.output, result.errors}) {
        EXPECT_THAT(text, Not(HasSubstr("secret")));
    }
    EXPECT_THAT(contentOf(log), HasSubstr("127.0.0.1 - lamps ["));
    EXPECT_THAT(contentOf(log), HasSubstr("127.0.0.1 - - ["));
    EXPECT_THAT(contentOf(audit), HasSubstr(R"("what":"announced","who":"lamps"})"));
    EXPECT_THAT(contentOf(audit), HasSubstr(R"("what":"files read again")"));
}

TEST_F(AGuardedRegistry, KnowsTheOwnersOfItsEntriesAfterARestart) {
    write("tokens", tokenLine("lamps", R"("announce":"/lamps","entries":1)"));
    const std::vector<std::string> arguments{"--port", "0",       "--tokens",
                                             tokens_,  "--store", folder_ / "store"};
    {
        RegistryProcess program(arguments);
        EXPECT_EQ(
            RawConnection(program.port()).ask(requestAs("lamps", "PUT", "/lamps/1", "{}")).result(),
            http::status::created);
        program.signal(SIGKILL);
        program.wait();
    }
    RegistryProcess program(arguments);
    RawConnection connection(program.port());
    EXPECT_EQ(connection.ask(requestAs("lamps", "PUT", "/lamps/2", "{}")).result(),
              http::status::insufficient_storage);
    EXPECT_EQ(connection.ask(requestAs("lamps", "PUT", "/lamps/1", "{}")).result(),
              http::status::ok);
}

}  // namespace
}  // namespace orvx::registry
