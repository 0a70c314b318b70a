// Children that are forked, and programs that are started, at any time while a client works: they
// end in any way, and neither the children nor the process are disturbed. Threads: the test's, its
// users', the client's three and the servers'.

#include "Child.h"
#include "IntegrationTest.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace orvx::serviceregistryclient {
namespace {

using testing::HostileServer;
using testing::Script;
using testing::statusOfChild;

/// Registers and withdraws without a pause while the object lives.
class User {
  public:
    User(IOrvServiceRegistryClient& client, const common::ServiceInfo& registry,
         const std::string& name)
        : thread_([this, &client, registry, name] {
              while (!isOver_) {
                  const auto lamp = client.registerServiceAtRegistry(registry, service(name));
                  EXPECT_EQ(text(lamp.response), "OK/NONE");
                  EXPECT_EQ(text(lamp.unregister()), "OK/NONE");
                  ++rounds_;
              }
          }) {}
    ~User() {
        isOver_ = true;
        thread_.join();
    }
    User(const User&) = delete;
    User& operator=(const User&) = delete;

    int rounds() const { return rounds_; }

  private:
    std::atomic<bool> isOver_{false};
    std::atomic<int> rounds_{0};
    std::thread thread_;
};

// A fork is slow under a sanitizer, which keeps a shadow of the memory.
#ifdef ORVX_SANITIZED
constexpr int kForks = 20;
#else
constexpr int kForks = 200;
#endif

class AForkingProcess : public IntegrationTest {};

TEST_F(AForkingProcess, KeepsRunningHoweverItsChildrenEnd) {
    HostileServer silent;
    silent.onRequest([](const auto& /*request*/) { return Script().silence(); });
    context.setCheckInterval(0s);
    start();
    client().registerServiceAtRegistry(at(silent.port()), service("door"), nullptr);
    ASSERT_TRUE(silent.waitForRequests(1));
    const std::function<void()> endings[] = {[] {}, [] { ::_exit(0); },
                                             [this] { context.deinit(); },
                                             [] { ::execl("/bin/true", "true", nullptr); }};
    const User one(client(), at(registry.port()), "one");
    const User other(client(), at(registry.port()), "other");
    for (int i = 0; i < kForks; ++i) {
        ASSERT_EQ(statusOfChild(endings[i % 4]), 0) << i % 4;
    }
    const int before = one.rounds();
    EXPECT_TRUE(eventually([&] { return one.rounds() > before + 1; }));
    EXPECT_GT(other.rounds(), 0);
    EXPECT_EQ(silent.counters().closedByPeer, 0U);
}

TEST_F(AForkingProcess, StartsProgramsThatHoldNoneOfItsConnectionsOpen) {
    HostileServer front;
    front.onRequest([](const auto& /*request*/) {
        return testing::response(201, {{"Location", "/lamp"}});
    });
    context.enableCheck(false);
    start();
    registered("lamp", front.port());
    const auto program = ::fork();
    if (program == 0) {
        ::execl("/bin/sleep", "sleep", "60", nullptr);
        ::_exit(1);
    }
    context.deinit();
    EXPECT_TRUE(front.waitForClosed(1));
    ::kill(program, SIGKILL);
    int status = 0;
    ::waitpid(program, &status, 0);
    EXPECT_EQ(WTERMSIG(status), SIGKILL) << "it ran until then";
}

}  // namespace
}  // namespace orvx::serviceregistryclient
