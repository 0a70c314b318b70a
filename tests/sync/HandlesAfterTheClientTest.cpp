// Handles, removers and blocking withdrawals that are called while their client ends, on real
// threads. The sanitizers detect data races and uses of freed memory.
#include "SyncTest.h"

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

constexpr auto kGone = Response::DELEGATOR_NOT_INITIATED;

class TheEndOfTheClient : public SyncTest {
  protected:
    /// Two threads repeat all calls that refer to the client until the client is gone. Both have
    /// started when `end` is called.
    void meetCalls(const std::function<void()>& end) {
        // With port 0 a registration is answered without a network request.
        const auto result = client().registerServiceAtRegistry(registry, service("echo"));
        const Handle handle = client().registerServiceAtRegistry(registry, service("echo"), {});
        const Handle refused = client().registerServiceAtRegistry(registry, service(), {});
        const auto remove = client().addServiceRegisterStatusListener({});
        std::atomic<int> rounds{0};
        const auto call = [&] {
            while (result.unregister().errorCode != kGone) {
                handle([&handle](const Response&) { handle({}); });
                refused({});
                remove();
                ++rounds;
            }
        };
        const auto first = std::async(std::launch::async, call);
        const auto second = std::async(std::launch::async, call);
        while (rounds < 4) {
            std::this_thread::yield();
        }
        end();
    }
};

TEST_F(TheEndOfTheClient, IsTheAnswerToEveryLaterBlockingWithdrawal) {
    start();
    const auto sent = client().registerServiceAtRegistry(registry, service("echo"));
    const auto refused = client().registerServiceAtRegistry(registry, service());
    const auto set = client().registerServicesAtRegistry(registry, makeServices(2));
    context.deinit();
    EXPECT_EQ(sent.unregister().status, Response::ERROR);
    EXPECT_EQ(sent.unregister().errorCode, kGone);
    EXPECT_EQ(refused.unregister().errorCode, kGone);
    for (const auto& [model, entry] : set.second) {
        EXPECT_EQ(entry.unregister().errorCode, kGone);
    }
}

TEST_F(TheEndOfTheClient, MayRaceWithCallsOfItsHandles) {
    context.setSyncCallUnregisterTimeout(std::chrono::milliseconds(20));
    for (int round = 0; round < 50; ++round) {
        start();
        meetCalls([this] { context.deinit(); });
    }
}

TEST_F(TheEndOfTheClient, MayRaceWithCallsOfItsHandlesWhenACallbackEndsIt) {
    context.setSyncCallUnregisterTimeout(std::chrono::milliseconds(20));
    for (int round = 0; round < 50; ++round) {
        start();
        std::promise<void> ended;
        meetCalls([&] {
            onCallbackThread([&] {
                context.deinit();
                ended.set_value();
            });
        });
        ended.get_future().wait();
    }
}

}  // namespace
}  // namespace orvx::serviceregistryclient
