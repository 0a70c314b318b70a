// Memory that runs out at each allocation of the I/O thread and of the thread that looks names up:
// each request gets one outcome, and the next request is served. The longest time-outs show whether
// an endpoint stands still.
#include "BusyIoThread.h"
#include "DeadResolver.h"
#include "Descriptors.h"
#include "HttpTest.h"
#include "Memory.h"
#include "RecordingLogger.h"
#include "TlsServer.h"

#include <dlfcn.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <iostream>
#include <new>
#include <string>
#include <vector>

namespace orvx::testing {
namespace {

using namespace std::chrono_literals;

std::atomic<bool> indexesFail{false};  // The next index of OpenSSL's data cannot be made.

class ATransportOutOfMemory : public HttpTest {
  protected:
    ATransportOutOfMemory() {
        server_.onRequest([](const Request&) { return response(200); });
        context_.setLoggerFactory(std::make_shared<RecordingLoggerFactory>());
        config_.connectTimeout = 1min;
        config_.requestTimeout = 1min;
    }
    void useTls() {
        config_.tls.enabled = true;
        config_.tls.disableServerVerification = true;
    }
    /// Lets every `step`-th allocation for a request fail, alone and with the three after it. The
    /// request is the first one of a session. The next request must end with `status`.
    void sweep(const std::function<SessionPointer()>& makeSession, CommunicationStatus status,
               std::size_t step = 1) {
        sweep(makeSession, status, step, 1);
        sweep(makeSession, status, step, 4);
    }

    HttpConfig config_;
    const DeadResolver resolver_;

  private:
    void sweep(const std::function<SessionPointer()>& makeSession, CommunicationStatus status,
               std::size_t step, std::size_t failures) {
        std::size_t n = 0;
        for (bool hasFailed = true; hasFailed && !HasFailure(); n += step) {
            context_.deinit();
            context_.init();
            const SessionPointer session = makeSession();
            Outcome outcome;
            Memory::failAfter(n, failures);
            session->sendDeleteRequest("/", "", outcome.handler());
            outcome.response();
            EXPECT_TRUE(outcome.waitUntilDestroyed());
            hasFailed = Memory::recover() > 0;
            EXPECT_EQ(outcome.calls(), 1);
            EXPECT_EQ(remove(session).getCommunicationStatus(), status)
                << "after the failure of allocation " << n;
        }
        std::cout << "swept " << n << " allocations\n";
        EXPECT_GT(n, 10U);
    }
};

TEST_F(ATransportOutOfMemory, FindsTheServerOfAName) {
    sweep([this] { return session(server_.port(), config_, "a.replicas.test"); },
          CommunicationStatus::Ok);
}

TEST_F(ATransportOutOfMemory, SaysThatANameIsUnknown) {
    sweep([this] { return session(80, config_, "a.unknown.test"); },
          CommunicationStatus::ResolveFailed);
}

TEST_F(ATransportOutOfMemory, SaysThatAConnectionIsRefused) {
    const RefusedPort refused;
    sweep([&] { return session(refused.port(), config_); }, CommunicationStatus::ConnectFailed);
}

TEST_F(ATransportOutOfMemory, SaysThatAConnectionIsNotAccepted) {
    const BlackHole silent;
    config_.connectTimeout = 10ms;
    sweep([&] { return session(silent.port(), config_); }, CommunicationStatus::TimedOut);
}

TEST_F(ATransportOutOfMemory, SpeaksTls) {
    const TlsServer server({}, [](SSL& ssl) {
        TlsServer::readRequest(ssl);
        TlsServer::send(ssl, "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n");
    });
    useTls();
    sweep([&] { return session(server.port(), config_); }, CommunicationStatus::Ok, 7);
}

// A process of its own, because OpenSSL numbers the data that refer to a client once in a process.
// Before, all later TLS connections failed.
TEST_F(ATransportOutOfMemory, SpeaksTlsThoughItsFirstUseFailed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const TlsServer server({}, [](SSL& ssl) {
        TlsServer::readRequest(ssl);
        TlsServer::send(ssl, "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n");
    });
    useTls();
    const auto statusesAreRight = [&] {
        indexesFail = true;
        const SessionPointer secure = session(server.port(), config_);
        const auto first = remove(secure).getCommunicationStatus();
        const auto second = remove(secure).getCommunicationStatus();
        std::cerr << "first " << first << ", second " << second;
        return first == CommunicationStatus::OutOfMemory && second == CommunicationStatus::Ok;
    };
    EXPECT_EXIT(::_exit(statusesAreRight() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST_F(ATransportOutOfMemory, SaysThatAHandshakeFailed) {
    TlsServer::Options mutual;
    mutual.isMutual = true;
    useTls();
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        mutual.version = version;
        const TlsServer server(mutual, [](SSL&) {});
        sweep([&] { return session(server.port(), config_); }, CommunicationStatus::TlsFailed, 7);
    }
}

// Before, the event descriptor stayed open.
TEST_F(ATransportOutOfMemory, LeavesNoDescriptorOfAnInitThatFailed) {
    context_.deinit();
    const std::size_t descriptors = openDescriptors();
    bool hasFailed = true;
    for (std::size_t n = 0; hasFailed && !HasFailure(); ++n) {
        {
            const Memory::CountedIn counted;
            Memory::failAfter(n, 1);
            try {
                context_.init();
            } catch (const std::bad_alloc&) {
                // Expected, unless the allocation is one that the library can do without.
            }
            hasFailed = Memory::recover() > 0;
        }
        context_.deinit();
        EXPECT_EQ(openDescriptors(), descriptors) << "after the failure of allocation " << n;
    }
}

TEST_F(ATransportOutOfMemory, FailsOneOfTheRequestsThatWaitForAConnection) {
    std::size_t n = 0;
    for (bool hasFailed = true; hasFailed && !HasFailure(); ++n) {
        context_.deinit();
        context_.init();
        const SessionPointer named = session(server_.port(), config_, "a.replicas.test");
        std::vector<Outcome> outcomes(2);
        {
            const BusyIoThread busy(context_);
            for (Outcome& outcome : outcomes) {
                named->sendDeleteRequest("/", "", outcome.handler());
            }
            Memory::failAfter(n, 1);
        }
        std::size_t failures = 0;
        for (Outcome& outcome : outcomes) {
            failures += outcome.status() == CommunicationStatus::Ok ? 0 : 1;
            EXPECT_TRUE(outcome.waitUntilDestroyed());
        }
        hasFailed = Memory::recover() > 0;
        EXPECT_LE(failures, 1U) << "after the failure of allocation " << n;
    }
    EXPECT_GT(n, 10U);
}

// The next request was once sent after a part of the failed one.
TEST_F(ATransportOutOfMemory, SendsNothingAfterAPartOfARequest) {
    const std::string content(32 * 1024 * 1024, 'x');
    bool hasFailed = true;
    for (std::size_t n = 0; hasFailed && !HasFailure(); ++n) {
        HostileServer server;
        server.onRequest([](const Request&) { return response(200); });
        const SessionPointer kept = session(server.port(), config_);
        put(kept);
        Outcome outcome;
        Memory::failAfter(n, 1);
        kept->sendPutRequestJson("/", content.data(), content.size(), outcome.handler());
        outcome.response();
        EXPECT_TRUE(outcome.waitUntilDestroyed());
        hasFailed = Memory::recover() > 0;
        EXPECT_EQ(codeOf(put(kept, "/next")), 200) << "after the failure of allocation " << n;
        EXPECT_EQ(server.requests().back().target, "/next");
    }
}

}  // namespace
}  // namespace orvx::testing

// Replaces OpenSSL's function, which returns -1 if memory runs out.
extern "C" __attribute__((visibility("default"))) int CRYPTO_get_ex_new_index(
    int kind, long number, void* pointer, CRYPTO_EX_new* make, CRYPTO_EX_dup* copy,
    CRYPTO_EX_free* destroy) {
    static const auto next = reinterpret_cast<decltype(&::CRYPTO_get_ex_new_index)>(
        ::dlsym(RTLD_NEXT, "CRYPTO_get_ex_new_index"));
    if (kind == CRYPTO_EX_INDEX_SSL && orvx::testing::indexesFail.exchange(false)) {
        return -1;
    }
    return next(kind, number, pointer, make, copy, destroy);
}
