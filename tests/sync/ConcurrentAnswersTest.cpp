// Answers from several threads at once, and answers that race with the end of the wait. Threads:
// the caller's and the answering ones.
#include "SyncTest.h"

#include <atomic>
#include <future>
#include <thread>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

using std::chrono::milliseconds;

const Response failed(Response::ERROR, Response::SERVICE_REGISTRY_ERROR);

/// Runs tasks on its own threads, a share on each. The destructor waits for the threads.
class Answerers {
  public:
    ~Answerers() {
        for (auto& thread : threads_) {
            thread.join();
        }
    }
    void run(const std::vector<std::function<void()>>& tasks) {
        constexpr std::size_t count = 4;
        for (std::size_t share = 0; share < count; ++share) {
            threads_.emplace_back([tasks, share] {
                for (std::size_t task = share; task < tasks.size(); task += count) {
                    tasks[task]();
                }
            });
        }
    }

  private:
    std::vector<std::thread> threads_;
};

class ConcurrentAnswers : public SyncTest {};

TEST_F(ConcurrentAnswers, AreAllGathered) {
    for (int round = 0; round < 20; ++round) {
        Answerers answerers;
        std::vector<std::function<void()>> tasks;
        const auto result = ClientTestAccess::collect(
            makeServices(200), [&](const Service& one, const ServiceCallback& collect) {
                const bool isLast = tasks.size() == 199;
                tasks.emplace_back([one, collect, isLast] { collect(one, isLast ? failed : ok); });
                if (isLast) {
                    answerers.run(tasks);
                }
            });
        EXPECT_FALSE(result.first);
        EXPECT_EQ(result.second.size(), 200U);
    }
}

TEST_F(ConcurrentAnswers, MayRaceWithTheEndOfTheWait) {
    context.setSyncCallUnregisterTimeout(milliseconds(1));
    start();
    std::map<std::uint64_t, Service> registrations;
    for (std::uint64_t id = 1; id <= 200; ++id) {
        registrations.emplace(id, service());
    }
    for (int round = 0; round < 50; ++round) {
        Answerers answerers;
        std::vector<std::function<void()>> tasks;
        const auto [allSucceeded, responses] = access().collectUnregistrations(
            registrations, [&](std::uint64_t, const Service& one, const ServiceCallback& collect) {
                tasks.emplace_back([one, collect] { collect(one, ok); });
                if (tasks.size() == registrations.size()) {
                    answerers.run(tasks);
                }
            });
        EXPECT_LE(responses.size(), registrations.size());
        EXPECT_EQ(allSucceeded && responses.size() != registrations.size(), false);
    }
}

TEST_F(ConcurrentAnswers, ToASingleCallMayRaceWithTheEndOfTheWait) {
    for (int round = 0; round < 200; ++round) {
        std::future<void> answerer;
        const Response response = ClientTestAccess::synchronized(
            [&](const auto& promise) {
                answerer = std::async(std::launch::async, [promise] { promise->set_value(ok); });
            },
            milliseconds(1));
        EXPECT_TRUE(response.status == Response::OK || response.errorCode == Response::TIMEOUT);
        EXPECT_NO_THROW(answerer.get());
    }
}

TEST_F(ConcurrentAnswers, ReachEachOfManyCallers) {
    start();
    std::vector<std::future<void>> callers;
    for (int caller = 0; caller < 8; ++caller) {
        callers.push_back(std::async(std::launch::async, [this] {
            for (int round = 0; round < 20; ++round) {
                const auto result = client().registerServiceAtRegistry(registry, service());
                EXPECT_EQ(result.response.errorCode, Response::SERVICE_NAME_MISSING);
                EXPECT_EQ(result.unregister().status, Response::OK);
                EXPECT_EQ(
                    client().registerServicesAtRegistry(registry, makeServices(5)).second.size(),
                    5U);
            }
        }));
    }
    for (auto& caller : callers) {
        caller.get();
    }
}

}  // namespace
}  // namespace orvx::serviceregistryclient
