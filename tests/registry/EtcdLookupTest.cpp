// Tests how the etcd client looks up the addresses of a member, with names that only this test
// resolves.
// The client runs on its own thread, lookups on one of Asio's, the test on the main one; they share
// futures.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "EtcdClient.h"
#include "RunningEtcdClient.h"

namespace {

std::promise<void>* endOfLookup = nullptr;  // ends the lookup of hangs.test

using Lookup = int (*)(const char*, const char*, const addrinfo*, addrinfo**);

}  // namespace

/// Replaces the system's function and adds two names. "several.test" has an address that refuses
/// connections, one that does not answer, and 127.0.0.1. The lookup of "hangs.test" ends when the
/// test ends it.
extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** result) {
    static const auto lookUp = reinterpret_cast<Lookup>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    const std::string host = name == nullptr ? "" : name;
    if (host == "hangs.test") {
        endOfLookup->get_future().wait_for(std::chrono::seconds(15));
        return EAI_AGAIN;
    }
    if (host != "several.test") {
        return lookUp(name, service, hints, result);
    }
    for (const char* address : {"127.0.0.3", "127.0.0.2", "127.0.0.1"}) {
        lookUp(address, service, hints, result);
        while (*result != nullptr) {
            result = &(*result)->ai_next;
        }
    }
    return 0;
}

namespace orvx::registry {
namespace {

using namespace std::chrono_literals;

/// Listens at 127.0.0.2 with a full queue, so that connecting to it never ends.
class FullListener {
  public:
    explicit FullListener(std::uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        for (int i = 0; i < 4; ++i) {
            sockets_.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
            if (i == 0) {
                EXPECT_EQ(::bind(sockets_[0], generic, sizeof address), 0);
                EXPECT_EQ(::listen(sockets_[0], 0), 0);
            } else {
                ::connect(sockets_.back(), generic, sizeof address);
            }
        }
    }
    ~FullListener() {
        for (const int socket : sockets_) {
            ::close(socket);
        }
    }
    FullListener(const FullListener&) = delete;
    FullListener& operator=(const FullListener&) = delete;

  private:
    std::vector<int> sockets_{};
};

TEST(ALookupOfEtcd, LeadsToTheFirstAddressThatAnswers) {
    const FakeMember member;
    const FullListener silent(member.listener.port());
    RunningEtcdClient client(
        optionsOf({"http://several.test:" + std::to_string(member.listener.port())}, 2s));
    auto result = client.call();
    RawConnection connection = member.listener.accept();
    readRequest(connection);
    connection.send(answerOf("{}"));
    const auto got = resultOf(result);
    EXPECT_TRUE(got.answer) << got.error;
    EXPECT_FALSE(got.isUncertain);
}

TEST(ALookupOfEtcd, EndsInTimeWhenItHangs) {
    std::promise<void> end;
    endOfLookup = &end;
    {
        const FakeMember member;
        RunningEtcdClient client(optionsOf({"http://hangs.test:1", member.url()}, 1s));
        auto result = client.call();
        RawConnection connection = member.listener.accept();
        readRequest(connection);
        connection.send(answerOf("{}"));
        EXPECT_TRUE(resultOf(result).answer);
        end.set_value();
    }
    endOfLookup = nullptr;
}

}  // namespace
}  // namespace orvx::registry
