// The signals of the process belong to the user: the library neither handles, blocks, consumes nor
// raises any, and no signal disturbs it. Threads: the test's, a user's in a blocking call, the
// client's three, the registry's.

#include "BlockingCall.h"
#include "DeadResolver.h"
#include "IntegrationTest.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <tuple>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

using testing::BlockingCall;
using testing::DeadResolver;
using ::testing::Each;
using testing::HostileServer;
using testing::Script;
using ::testing::SizeIs;

std::atomic<int> arrived{0};
std::atomic<int> arrivedInside{0};

void count(int /*signal*/) {
    char name[16] = "";
    ::prctl(PR_GET_NAME, name);
    ++(std::strncmp(name, "ORVX_", 5) == 0 ? arrivedInside : arrived);
}

/// Counts the deliveries of a signal while the object lives. The handler interrupts blocking system
/// calls.
class Counted {
  public:
    explicit Counted(int signal) : signal_(signal) {
        arrived = arrivedInside = 0;
        struct sigaction action {};
        action.sa_handler = count;
        ::sigaction(signal_, &action, &before_);
    }
    ~Counted() { ::sigaction(signal_, &before_, nullptr); }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

  private:
    const int signal_;
    struct sigaction before_ {};
};

using Action = std::tuple<void*, int, std::vector<int>>;

std::vector<int> membersOf(const sigset_t& set) {
    std::vector<int> members;
    for (int signal = 1; signal < NSIG; ++signal) {
        if (::sigismember(&set, signal) == 1) {
            members.push_back(signal);
        }
    }
    return members;
}

/// The process's action for each signal.
std::vector<Action> actions() {
    std::vector<Action> table;
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action {};
        ::sigaction(signal, nullptr, &action);
        table.emplace_back(reinterpret_cast<void*>(action.sa_handler), action.sa_flags,
                           membersOf(action.sa_mask));
    }
    return table;
}

std::string lineOf(const std::filesystem::path& status, const std::string& name) {
    std::ifstream file(status);
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(name, 0) == 0) {
            return line.substr(name.size());
        }
    }
    return "";
}

/// The signals that the library's threads block, as the system shows them. The threads are found by
/// name; a look-up's thread has the name of its creator.
std::vector<std::string> blockedInside() {
    std::vector<std::string> masks;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        if (lineOf(thread.path() / "status", "Name:\t").rfind("ORVX_", 0) == 0) {
            masks.push_back(lineOf(thread.path() / "status", "SigBlk:\t"));
        }
    }
    return masks;
}

bool isOnCallbackThread() {
    char name[16] = "";
    ::prctl(PR_GET_NAME, name);
    return std::strcmp(name, "ORVX_SRCBExec") == 0;
}

constexpr std::size_t kForbiddenBytes = 1;
void* forbidden = nullptr;
std::atomic<bool> isCrashHandled{false};

/// Removes the cause of the crash; the crashing thread continues.
void handleCrash(int /*signal*/) {
    isCrashHandled = isOnCallbackThread();
    ::mprotect(forbidden, kForbiddenBytes, PROT_READ | PROT_WRITE);
}

/// Sends SIGTERM to a program that would end by itself after ten seconds. Returns its wait status.
int statusOfStopped(pid_t program) {
    int status = -1;
    ::kill(program, SIGTERM);
    ::waitpid(program, &status, 0);
    return status;
}

class TheSignals : public IntegrationTest {
  protected:
    void runInCallback(const std::function<void()>& act) {
        context.enableCheck(false);
        start();
        client().registerServiceAtRegistry(at(registry.port()), service("lamp"),
                                           [&](const auto& outcome) {
                                               act();
                                               outcomes.write(text(outcome));
                                           });
        EXPECT_THAT(outcomes.await(1), Each("OK/NONE"));
    }
};

TEST_F(TheSignals, KeepTheirActions) {
    const auto before = actions();
    context.setCheckInterval(0s);
    start();
    const auto withdraw = registered("lamp", registry.port());
    EXPECT_TRUE(eventually([&] { return entries().at(0).at("checks") > 1; }));
    EXPECT_EQ(actions(), before);
    EXPECT_EQ(outcomeOf(withdraw), "OK/NONE");
    context.deinit();
    EXPECT_EQ(actions(), before);
}

// All signals except SIGKILL, SIGSTOP, the two that the C library reserves, and the seven of a
// crash.
TEST_F(TheSignals, AreBlockedInEachThreadOfTheLibraryAndOfALookUp) {
    DeadResolver resolver;
    start();
    client().registerServiceAtRegistry({"registry", "registry.silent.test", 80}, service("lamp"),
                                       nullptr);
    ASSERT_TRUE(resolver.waitForLookups(1));
    EXPECT_TRUE(eventually([] { return blockedInside().size() == 4; }));
    EXPECT_THAT(blockedInside(), Each("fffffffe3ffbfa07"));
}

// These signals were once blocked: the system ended the process, and its handler did not run.
TEST_F(TheSignals, OfACrashInACallbackReachTheHandlerOfTheProcess) {
    forbidden = ::mmap(nullptr, kForbiddenBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = handleCrash;
    ::sigaction(SIGSEGV, &action, &before);
    runInCallback([] { *static_cast<volatile char*>(forbidden) = 1; });
    ::sigaction(SIGSEGV, &before, nullptr);
    EXPECT_TRUE(isCrashHandled);
    ::munmap(forbidden, kForbiddenBytes);
}

// The program once inherited the mask of the callback thread and continued to run.
TEST_F(TheSignals, StopAProgramThatACallbackForks) {
    int status = -1;
    runInCallback([&] {
        const pid_t program = ::fork();
        if (program == 0) {
            ::execl("/bin/sleep", "sleep", "10", nullptr);
            ::_exit(1);
        }
        status = statusOfStopped(program);
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
}

// As described in docs/threading.md: a spawned program inherits the mask unchanged.
TEST_F(TheSignals, StopAProgramThatACallbackSpawnsWithoutItsMask) {
    int status = -1;
    runInCallback([&] {
        sigset_t none;
        ::sigemptyset(&none);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setsigmask(&attributes, &none);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
        char name[] = "sleep";
        char seconds[] = "10";
        char* const arguments[] = {name, seconds, nullptr};
        pid_t program = 0;
        EXPECT_EQ(::posix_spawn(&program, "/bin/sleep", nullptr, &attributes, arguments, environ),
                  0);
        ::posix_spawnattr_destroy(&attributes);
        status = statusOfStopped(program);
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
}

TEST_F(TheSignals, ArriveAllOfThemAtThreadsOfTheUser) {
    constexpr int many = 1000;
    const Counted counted(SIGRTMIN);
    context.enableCheck(false);
    start();
    for (int i = 0; i < many; ++i) {
        client().registerServiceAtRegistry(at(registry.port()), service("bell"), record());
        while (::sigqueue(::getpid(), SIGRTMIN, {}) != 0 && errno == EAGAIN) {
        }
    }
    EXPECT_TRUE(eventually([] { return arrived == many; })) << arrived << ' ' << arrivedInside;
    EXPECT_THAT(outcomes.await(many), SizeIs(many));
    EXPECT_THAT(outcomes.notes(), Each("OK/NONE"));
}

TEST_F(TheSignals, DoNotEndABlockingCallEarly) {
    const Counted counted(SIGUSR1);
    HostileServer slow;
    slow.nextRequest(
        Script().waitForRelease("put").send(testing::response(201, {{"Location", "/lamp"}})));
    slow.nextRequest(Script().waitForRelease("delete").send(testing::response(200)));
    context.enableCheck(false);
    start();
    std::atomic<pthread_t> user{};
    const auto interrupt = [&](BlockingCall<std::string>& call, const char* gate) {
        EXPECT_TRUE(call.isWaiting());
        for (arrived = 0; arrived < 20;) {
            const int sofar = arrived;
            ::pthread_kill(user, SIGUSR1);
            EXPECT_TRUE(eventually([&] { return arrived > sofar; }));
        }
        slow.release(gate);
        EXPECT_EQ(call.get(), "OK/NONE");
    };
    SyncOrvRegistrationResponse lamp;
    BlockingCall<std::string> registration([&] {
        user = ::pthread_self();
        lamp = client().registerServiceAtRegistry(at(slow.port()), service("lamp"));
        return text(lamp.response);
    });
    interrupt(registration, "put");
    BlockingCall<std::string> withdrawal([&] {
        user = ::pthread_self();
        return text(lamp.unregister());
    });
    interrupt(withdrawal, "delete");
}

// Larger than any buffer of the system, so that bytes are left to be sent when the connection is
// gone.
TEST_F(TheSignals, AreNotRaisedByARegistryThatEndsTheConnectionBeforeItsTime) {
    const Counted counted(SIGPIPE);
    HostileServer rude;
    rude.everyConnection(Script().readBytes(1000).reset());
    context.enableRetry(false);
    start();
    const auto lamp = service("lamp");
    lamp->setDescription(std::string(16U << 20U, 'x'));
    for (int i = 0; i < 2; ++i) {
        client().registerServiceAtRegistry(at(rude.port()), lamp, record());
    }
    EXPECT_THAT(outcomes.await(2), Each("ERROR/SERVICE_REGISTRY_ERROR"));
    EXPECT_EQ(arrived + arrivedInside, 0);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
