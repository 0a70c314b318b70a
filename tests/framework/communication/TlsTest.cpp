// The outcomes of requests over TLS, with a peer that follows the rules and one that does not.

#include "BusyIoThread.h"
#include "HttpTest.h"
#include "TlsServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <utility>

#include "DeadResolver.h"
#include "RecordingLogger.h"

namespace orvx::testing {
namespace {

using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

const std::string kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nab";
const std::string kLastAnswer = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
const std::string kAnswerUntilTheEnd = "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nab";

std::string systemsAuthorities;

/// The path of the system's file of authorities, as OpenSSL was built and by the environment.
class SystemsAuthorities {
  public:
    explicit SystemsAuthorities(const std::string& path) {
        systemsAuthorities = path;
        ::setenv(X509_get_default_cert_file_env(), path.c_str(), 1);
    }
    ~SystemsAuthorities() {
        ::unsetenv(X509_get_default_cert_file_env());
        systemsAuthorities.clear();
    }
    SystemsAuthorities(const SystemsAuthorities&) = delete;
    SystemsAuthorities& operator=(const SystemsAuthorities&) = delete;
};

class Tls : public HttpTest {
  protected:
    static HttpConfig trusting(const TlsServer& server) {
        HttpConfig config;
        config.tls.enabled = true;
        config.tls.authorityFile = server.authority();
        return config;
    }
    SessionPointer sessionWith(const TlsServer& server) {
        return session(server.port(), trusting(server));
    }
    HttpResponse answerOf(const TlsServer::Options& options, const TlsServer::Script& script) {
        const TlsServer server(options, [&script](SSL& ssl) {
            TlsServer::readRequest(ssl);
            script(ssl);
        });
        return remove(sessionWith(server));
    }
    CommunicationStatus statusOf(const TlsServer::Options& options,
                                 const TlsServer::Script& script) {
        return answerOf(options, script).getCommunicationStatus();
    }
    static TlsServer::Options version(int number) {
        TlsServer::Options options;
        options.version = number;
        return options;
    }
    static TlsServer::Script sending(const std::string& bytes) {
        return [bytes](SSL& ssl) { TlsServer::send(ssl, bytes); };
    }
    static TlsServer::Script answering(const std::string& bytes) {
        return [bytes](SSL& ssl) {
            TlsServer::readRequest(ssl);
            TlsServer::send(ssl, bytes);
        };
    }
    /// The message for a failed handshake.
    std::string wordsFor(const TlsServer::Options& options, bool isUnverified = false) {
        const auto loggers = std::make_shared<RecordingLoggerFactory>();
        context_.deinit();
        context_.setLoggerFactory(loggers);
        context_.init();
        const TlsServer server(options, sending(kLastAnswer));
        HttpConfig config = trusting(server);
        config.tls.disableServerVerification = isUnverified;
        const SessionPointer failing = session(server.port(), config);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(remove(failing).getCommunicationStatus(), CommunicationStatus::TlsFailed);
        }
        const auto lines = loggers->takeLines();
        EXPECT_EQ(lines.size(), 1U) << "said once";
        EXPECT_TRUE(server.resumed().empty());
        return lines.empty() ? "" : lines.front().text;
    }
};

// A session that arrives over a connection that was never used is input without a request.
TEST_F(Tls, KeepsAnUnusedConnectionOverWhichASessionArrives) {
    std::promise<void> established;
    std::promise<void> due;
    std::promise<void> sent;
    bool isFirst = true;
    const TlsServer server({}, [&](SSL& ssl) {
        if (std::exchange(isFirst, false)) {
            established.set_value();
            due.get_future().wait();
            SSL_new_session_ticket(&ssl);
            SSL_do_handshake(&ssl);
            sent.set_value();
        }
        TlsServer::readRequest(ssl);
        TlsServer::send(ssl, kLastAnswer);
    });
    const SessionPointer secure = sessionWith(server);
    const SessionPointer unavailable = context_.getUnavailableSession();
    Outcome unsent;
    {
        const BusyIoThread busy(context_);
        secure->sendHeadRequest("/", unsent.handler());
        unavailable->sendHeadRequest("/", [&](const HttpResponse&) { secure->abandon(); });
    }
    EXPECT_EQ(unsent.status(), CommunicationStatus::Abandoned);
    established.get_future().wait();
    server_.nextRequest(Script().waitForRelease("other").send(response(200)).close());
    Outcome other;
    session()->sendPutRequestJson("/", "", 0, other.handler());
    ASSERT_TRUE(server_.waitForRequests(1));
    Outcome late;
    {
        const BusyIoThread busy(context_);
        // The I/O thread handles this answer first, so that the request finds the session unread.
        server_.release("other");
        ASSERT_TRUE(server_.waitFor([](const auto& now) { return now.open == 0; }));
        due.set_value();
        sent.get_future().wait();
        secure->sendDeleteRequest("/", "", late.handler());
    }
    EXPECT_EQ(late.statusCode(), 200);
    EXPECT_EQ(other.statusCode(), 200);
    EXPECT_EQ(server.resumed().size(), 1U) << "connections";
}

TEST_F(Tls, ResumesItsSessionsInBothVersions) {
    for (const int number : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const TlsServer server(version(number), [](SSL& ssl) {
            TlsServer::readRequest(ssl);
            TlsServer::send(ssl, kLastAnswer);
        });
        const SessionPointer secure = sessionWith(server);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(codeOf(remove(secure)), 200);
        }
        EXPECT_THAT(server.resumed(), ElementsAre(false, true, true)) << number;
    }
}

// RFC 8446, C.4: an observer could recognise a client that uses a ticket twice.
TEST_F(Tls, ShowsATicketOfTls13Once) {
    const TlsServer server({}, [](SSL& ssl) {
        SSL_CTX_set_num_tickets(SSL_get_SSL_CTX(&ssl), 0);  // the first connection got two tickets
        TlsServer::readRequest(ssl);
        TlsServer::send(ssl, kLastAnswer);
    });
    const SessionPointer secure = sessionWith(server);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(codeOf(remove(secure)), 200);
    }
    EXPECT_THAT(server.resumed(), ElementsAre(false, true, true, false));
}

TEST_F(Tls, ResumesNoSessionThatOtherAuthoritiesVerified) {
    const TlsServer server({}, [](SSL& ssl) {
        TlsServer::readRequest(ssl);
        TlsServer::send(ssl, kLastAnswer);
    });
    const TlsServer stranger({}, [](SSL&) {});
    const SessionPointer secure = sessionWith(server);
    EXPECT_EQ(codeOf(remove(secure)), 200);
    ASSERT_EQ(::rename(stranger.authority().c_str(), server.authority().c_str()), 0);
    EXPECT_EQ(remove(secure).getCommunicationStatus(), CommunicationStatus::TlsFailed);
    EXPECT_THAT(server.resumed(), ElementsAre(false));
}

// The session arrives over a connection that was made before the authorities were replaced. The
// client reads the new file from a pipe, so that it has replaced them before the session is sent.
TEST_F(Tls, ResumesNoSessionOfAnOlderConnectionAfterAChangeOfTheAuthorities) {
    std::promise<void> due;
    int connections = 0;
    const TlsServer server({}, [&](SSL& ssl) {
        SSL_CTX_set_num_tickets(SSL_get_SSL_CTX(&ssl), 0);  // of later connections
        TlsServer::readRequest(ssl);
        if (++connections == 1) {
            due.get_future().wait();
            SSL_new_session_ticket(&ssl);
            SSL_do_handshake(&ssl);
        }
        TlsServer::send(ssl, kLastAnswer);
    });
    const SessionPointer secure = sessionWith(server);
    Outcome first;
    Outcome second;
    secure->sendDeleteRequest("/", "", first.handler());
    while (server.resumed().empty()) {
        std::this_thread::yield();
    }
    const std::string moved = server.authority() + ".moved";
    EXPECT_EQ(::rename(server.authority().c_str(), moved.c_str()), 0);
    EXPECT_EQ(::mkfifo(server.authority().c_str(), 0600), 0);
    secure->sendDeleteRequest("/", "", second.handler());
    {
        std::ofstream changed(server.authority());  // Opening waits for the reader.
        changed << std::ifstream(moved).rdbuf() << '\n';
    }
    { const BusyIoThread hasReadIt(context_); }
    EXPECT_EQ(::unlink(server.authority().c_str()), 0);
    {
        std::ofstream same(server.authority());
        same << std::ifstream(moved).rdbuf() << '\n';
    }
    due.set_value();
    EXPECT_EQ(first.statusCode(), 200);
    EXPECT_EQ(second.statusCode(), 200);
    EXPECT_EQ(codeOf(remove(secure)), 200);
    EXPECT_THAT(server.resumed(), ElementsAre(false, false, false));
    ::unlink(moved.c_str());
}

TEST_F(Tls, KeepsSixteenSessions) {
    bool isFirst = true;
    const TlsServer server({}, [&isFirst](SSL& ssl) {
        SSL_CTX_set_num_tickets(SSL_get_SSL_CTX(&ssl), 0);  // of later connections
        TlsServer::readRequest(ssl);
        for (int i = 0; isFirst && i < 20; ++i) {
            SSL_new_session_ticket(&ssl);
            SSL_do_handshake(&ssl);
        }
        isFirst = false;
        TlsServer::send(ssl, kLastAnswer);
    });
    const SessionPointer secure = sessionWith(server);
    for (int i = 0; i < 18; ++i) {
        EXPECT_EQ(codeOf(remove(secure)), 200);
    }
    std::vector<bool> expected(18, true);
    expected.front() = expected.back() = false;
    EXPECT_EQ(server.resumed(), expected);
}

// A session that came with the last answer was once stored by an object that the stop had
// destroyed.
TEST_F(Tls, MayBeStoppedWhileAnAnswerAndItsSessionsCome) {
    const TlsServer server({}, [](SSL& ssl) {
        TlsServer::readRequest(ssl);
        TlsServer::send(ssl, kAnswer);
    });
    for (std::size_t round = 1; round <= 100; ++round) {
        Outcome ignored;
        sessionWith(server)->sendDeleteRequest("/", "", ignored.handler());
        while (server.resumed().size() < round) {
            std::this_thread::yield();
        }
        context_.deinit();
        context_.init();
    }
}

TEST_F(Tls, SaysInWordsWhatFailed) {
    TlsServer::Options expired;
    expired.validFrom = -7200;
    expired.validUntil = -3600;
    EXPECT_THAT(wordsFor(expired), HasSubstr("certificate has expired"));
    TlsServer::Options elsewhere;
    elsewhere.subject = "IP:127.0.0.2";
    EXPECT_THAT(wordsFor(elsewhere), HasSubstr("IP address mismatch"));
    EXPECT_THAT(wordsFor(version(TLS1_1_VERSION)), HasSubstr("protocol version"));
    for (const int version :
         {TLS1_2_VERSION, TLS1_3_VERSION}) {  // TLS 1.3 reports the failure after the handshake
        TlsServer::Options mutual;
        mutual.version = version;
        mutual.isMutual = true;
        EXPECT_THAT(wordsFor(mutual), HasSubstr(" alert ")) << version;
    }
}

// The cause was the self-signed certificate, which is accepted.
TEST_F(Tls, DoesNotSayThatACertificateFailedWhichIsNotVerified) {
    TlsServer::Options mutual;
    mutual.version = TLS1_2_VERSION;
    mutual.isMutual = true;
    EXPECT_THAT(wordsFor(mutual, true), HasSubstr(" alert "));
}

TEST_F(Tls, TrustsItsOwnAuthorityAndNoneOfTheSystem) {
    const TlsServer server({}, answering(kLastAnswer));
    const TlsServer stranger({}, [](SSL&) {});
    const SystemsAuthorities authorities(server.authority());
    HttpConfig withoutOwn;
    withoutOwn.tls.enabled = true;
    EXPECT_EQ(codeOf(remove(session(server.port(), withoutOwn))), 200)
        << "the system's are trusted";
    EXPECT_EQ(remove(session(server.port(), trusting(stranger))).getCommunicationStatus(),
              CommunicationStatus::TlsFailed);
}

TEST_F(Tls, TellsTheServersNameAndTrustsACertificateForThatNameOnly) {
    TlsServer::Options options;
    std::string named;
    for (const auto& [subject, status] :
         {std::pair("DNS:localhost", CommunicationStatus::Ok),
          std::pair("DNS:elsewhere", CommunicationStatus::TlsFailed)}) {
        options.subject = subject;
        const TlsServer server(options, [&named](SSL& ssl) {
            TlsServer::readRequest(ssl);
            const char* const name = SSL_get_servername(&ssl, TLSEXT_NAMETYPE_host_name);
            named = name == nullptr ? "" : name;
            TlsServer::send(ssl, kLastAnswer);
        });
        EXPECT_EQ(
            remove(session(server.port(), trusting(server), "localhost")).getCommunicationStatus(),
            status)
            << subject;
    }
    EXPECT_EQ(named, "localhost");
}

// RFC 6066, 3: the name in SNI has no trailing dot.
TEST_F(Tls, TrustsACertificateForAnAbsoluteName) {
    const DeadResolver resolver;
    TlsServer::Options options;
    options.subject = "DNS:a.replicas.test";
    std::string named;
    const TlsServer server(options, [&named](SSL& ssl) {
        TlsServer::readRequest(ssl);
        const char* const name = SSL_get_servername(&ssl, TLSEXT_NAMETYPE_host_name);
        named = name == nullptr ? "" : name;
        TlsServer::send(ssl, kLastAnswer);
    });
    EXPECT_EQ(codeOf(remove(session(server.port(), trusting(server), "a.replicas.test."))), 200);
    EXPECT_EQ(named, "a.replicas.test");
}

TEST_F(Tls, IsNotSpokenInAnOlderVersionThanTheConfiguredOne) {
    const TlsServer server(version(TLS1_2_VERSION), answering(kLastAnswer));
    HttpConfig config = trusting(server);
    config.tls.lowestVersion = communication::TlsConfig::Version::Tls13;
    EXPECT_EQ(remove(session(server.port(), config)).getCommunicationStatus(),
              CommunicationStatus::TlsFailed);
}

TEST_F(Tls, ShowsTheConfiguredCertificate) {
    TlsServer::Options options;
    options.isMutual = true;
    const TlsServer server(options, answering(kLastAnswer));
    HttpConfig config = trusting(server);
    EXPECT_NE(remove(session(server.port(), config)).getCommunicationStatus(),
              CommunicationStatus::Ok);
    config.tls.clientCertificateFile = server.authority();
    EXPECT_EQ(codeOf(remove(session(server.port(), config))), 200);
}

TEST_F(Tls, LeavesNoOpenKeyFileToTheProgramsThatAreStarted) {
    TlsServer::Options options;
    options.isMutual = true;
    const TlsServer server(options, answering(kLastAnswer));
    const std::string pipe = ::testing::TempDir() + "orvx-key-" + std::to_string(::getpid());
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    HttpConfig config = trusting(server);
    config.tls.clientCertificateFile = server.authority();
    config.tls.clientKeyFile = pipe;
    Outcome outcome;
    session(server.port(), config)->sendDeleteRequest("/", "", outcome.handler());
    {
        std::ofstream key(pipe);  // Opening waits for the reader.
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            const int descriptor = std::stoi(entry.path().filename());
            std::error_code ignored;
            if (std::filesystem::read_symlink(entry.path(), ignored) == pipe &&
                (::fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_RDONLY) {
                EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
            }
        }
        key << std::ifstream(server.authority()).rdbuf();
    }
    EXPECT_EQ(outcome.statusCode(), 200);
    ::unlink(pipe.c_str());
}

TEST_F(Tls, MustEndWithAFarewellWhereNothingElseTellsTheEnd) {
    EXPECT_EQ(statusOf({}, sending(kAnswerUntilTheEnd)), CommunicationStatus::CutShort);
    EXPECT_EQ(answerOf({},
                       [](SSL& ssl) {
                           TlsServer::send(ssl, kAnswerUntilTheEnd);
                           SSL_shutdown(&ssl);
                       })
                  .getBody(),
              "ab");
    EXPECT_EQ(answerOf({}, sending(kAnswer)).getBody(), "ab");
}

TEST_F(Tls, ThatBreaksInsideAnAnswerCutsItShort) {
    const auto sendRaw = [](SSL& ssl, const std::string& bytes) {
        ::send(SSL_get_fd(&ssl), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    };
    // In TLS 1.3 a warning in plain text is as invalid as random bytes.
    for (const int number : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const std::string& broken :
             {std::string("\x15\x03\x03\x00\x02\x02\x28", 7), std::string("garbage in between")}) {
            EXPECT_EQ(statusOf(version(number),
                               [&](SSL& ssl) {
                                   TlsServer::send(ssl, kAnswer.substr(0, kAnswer.size() - 1));
                                   sendRaw(ssl, broken);
                               }),
                      CommunicationStatus::CutShort);
            EXPECT_EQ(statusOf(version(number), [&](SSL& ssl) { sendRaw(ssl, broken); }),
                      CommunicationStatus::TlsFailed);
        }
    }
}

TEST_F(Tls, IsNotNegotiatedAnew) {
    const auto clientsRandom = [](const SSL& ssl) {
        std::string random(SSL3_RANDOM_SIZE, '\0');
        SSL_get_client_random(&ssl, reinterpret_cast<unsigned char*>(random.data()), random.size());
        return random;
    };
    bool isSame = false;
    const HttpResponse answer = answerOf(version(TLS1_2_VERSION), [&](SSL& ssl) {
        const std::string before = clientsRandom(ssl);
        SSL_renegotiate(&ssl);
        SSL_do_handshake(&ssl);  // Requests a renegotiation.
        char ignored = 0;
        SSL_read(&ssl, &ignored, 1);  // Reads the new hello or the refusal.
        isSame = clientsRandom(ssl) == before;
        TlsServer::send(ssl, kAnswer);
    });
    EXPECT_TRUE(isSame);
    EXPECT_NE(answer.getCommunicationStatus(), CommunicationStatus::TimedOut);
}

TEST_F(Tls, CarriesALargeContent) {
    std::string content(3 * 1024 * 1024, 'x');
    std::size_t received = 0;
    const TlsServer server({}, [&received, &content](SSL& ssl) {
        std::string bytes(1 << 16, '\0');
        while (received < content.size()) {
            const int size = SSL_read(&ssl, bytes.data(), static_cast<int>(bytes.size()));
            if (size <= 0) {
                return;
            }
            received += static_cast<std::size_t>(size);
        }
        TlsServer::send(ssl, kLastAnswer);
    });
    EXPECT_EQ(codeOf(put(sessionWith(server), "/", content)), 200);
}

TEST_F(Tls, TakesNothingThatWasSaidUnaskedForAnAnswer) {
    std::promise<void> asked;
    std::promise<void> sent;
    int connections = 0;
    const TlsServer server({}, [&](SSL& ssl) {
        TlsServer::readRequest(ssl);
        if (++connections > 1) {
            TlsServer::send(ssl, "HTTP/1.1 202 OK\r\nContent-Length: 0\r\n\r\n");
            return;
        }
        TlsServer::send(ssl, kAnswer);
        asked.get_future().wait();
        TlsServer::send(ssl, "HTTP/1.1 201 OK\r\nContent-Length: 0\r\n\r\n");
        sent.set_value();
    });
    const SessionPointer secure = sessionWith(server);
    EXPECT_EQ(codeOf(remove(secure)), 200);
    server_.nextRequest(Script().waitForRelease("other").send(response(200)).close());
    const SessionPointer plain = session();
    Outcome other;
    plain->sendHeadRequest("/", other.handler());
    ASSERT_TRUE(server_.waitForRequests(1));
    Outcome next;
    {
        const BusyIoThread busy(context_);
        // The loop handles one event before the next request: this one.
        server_.release("other");
        ASSERT_TRUE(server_.waitFor([](const auto& now) { return now.open == 0; }));
        asked.set_value();
        sent.get_future().wait();
        secure->sendDeleteRequest("/", "", next.handler());
    }
    EXPECT_EQ(next.statusCode(), 202);
}

}  // namespace

const char* systemsFileOfAuthorities() {
    return systemsAuthorities.c_str();
}

}  // namespace orvx::testing

// Replaces OpenSSL's own function.
extern "C" __attribute__((visibility("default"))) const char* X509_get_default_cert_file() {
    return orvx::testing::systemsFileOfAuthorities();
}
