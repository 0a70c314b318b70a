// Two thousand processes at one registry that goes away, and comes back without its entries: the
// time until all are registered again, and the load until then. The time is simulated, so the
// figures do not depend on the machine; only the retries are random.
#include "RecordingLogger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>
#include <orvx/simulation/World.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <set>
#include <utility>
#include <vector>

namespace orvx::simulation {
namespace {

using common::ServiceCreate;
using common::XObject;
using serviceregistryclient::OrvServiceRegistryContext;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::size_t kClients = 2000;
constexpr milliseconds kInterval = seconds(10);
constexpr milliseconds kStep(5);

class SilentLoggerFactory : public testing::RecordingLoggerFactory {
    class Logger : public utility::ILogger {
        void log(const std::string&, int) override {}
        bool isEnabled(LogLevel) const override { return false; }
        bool isInfoEnabled() const override { return false; }
    };
    std::shared_ptr<utility::ILogger> createLogger(const std::string&,
                                                   const std::string&) override {
        return std::make_shared<Logger>();
    }
};

/// Answers each request one step of the clock after its arrival. While it is down, requests fail
/// immediately.
class Registry {
  public:
    explicit Registry(World& world) : world_(world) {}

    void goDown() {
        isUp_ = false;
        entries_.clear();
    }
    void comeUp() { isUp_ = true; }
    std::size_t entries() const { return entries_.size(); }

    void step() {
        for (Request& request : std::exchange(asked_, {})) {
            answer(request);
        }
        while (const auto request = world_.takeRequest()) {
            times_.push_back(world_.now());
            asked_.push_back(*request);
        }
    }

    std::size_t requestsSince(milliseconds begin) const {
        return static_cast<std::size_t>(times_.end() -
                                        std::lower_bound(times_.begin(), times_.end(), begin));
    }
    /// The maximum number of requests within a second since `begin`.
    std::size_t peakSince(milliseconds begin) const {
        std::size_t peak = 0;
        for (auto first = std::lower_bound(times_.begin(), times_.end(), begin);
             first != times_.end(); ++first) {
            const auto last = std::lower_bound(first, times_.end(), *first + seconds(1));
            peak = std::max(peak, static_cast<std::size_t>(last - first));
        }
        return peak;
    }

  private:
    void answer(Request& request) {
        if (!isUp_) {
            request.answer(
                communication::HttpResponse(communication::CommunicationStatus::ConnectFailed));
        } else if (request.method() == "PUT") {
            entries_.insert(request.path());
            request.answer(201, "Location: " + request.path() + "\r\n");
        } else {
            request.answer(entries_.count(request.path()) != 0 ? 200 : 404);
        }
    }

    World& world_;
    bool isUp_ = true;
    std::set<std::string> entries_;
    std::vector<Request> asked_;
    std::vector<milliseconds> times_;
};

class TheHerd : public ::testing::Test {
  protected:
    TheHerd() {
        for (std::size_t i = 0; i < kClients; ++i) {
            contexts_.push_back(std::make_unique<OrvServiceRegistryContext>());
            contexts_.back()->setLoggerFactory(log_);
            contexts_.back()->init();
        }
    }

    void announce(std::size_t client) {
        const std::string name = std::to_string(client);
        contexts_[client]->getServiceRegistryClient()->registerServiceAtRegistry(
            common::ServiceInfo("registry", "127.0.0.1", 8500),
            std::make_shared<ServiceCreate>(std::make_unique<XObject>("", name, "/" + name)), {});
    }
    void announceAllWithin(milliseconds duration) {
        const milliseconds begin = world.now();
        for (std::size_t i = 0; i < kClients; ++i) {
            runUntil(begin + duration * i / kClients);
            announce(i);
        }
    }
    void step() {
        world.advance(kStep);
        world.runIo();
        registry.step();
    }
    void runUntil(milliseconds time) {
        while (world.now() + kStep <= time) {
            step();
        }
    }
    /// The time until the registry has all services, at most `bound`.
    milliseconds timeUntilAllAreIn(milliseconds bound) {
        const milliseconds begin = world.now();
        while (registry.entries() < kClients && world.now() - begin <= bound) {
            step();
        }
        return world.now() - begin;
    }
    void report(const std::string& what, milliseconds last, milliseconds since) const {
        std::cout << "herd of " << kClients << ", " << what << ": all back after " << last.count()
                  << " ms, peak " << registry.peakSince(since) << " requests/s, "
                  << static_cast<double>(registry.requestsSince(since)) / kClients
                  << " requests each\n";
    }

    World world;
    Registry registry{world};

  private:
    const std::shared_ptr<utility::ILoggerFactory> log_ = std::make_shared<SilentLoggerFactory>();
    std::vector<std::unique_ptr<OrvServiceRegistryContext>> contexts_;
};

/// Independent arrivals at this mean rate stay below the result in every second: six standard
/// deviations.
std::size_t burst(double rate) {
    return static_cast<std::size_t>(rate + 6 * std::sqrt(rate));
}

TEST_F(TheHerd, IsBackWithinOneIntervalOfARestartAndAddsOneRequestEach) {
    announceAllWithin(kInterval);
    runUntil(seconds(30));
    ASSERT_EQ(registry.entries(), kClients);
    registry.goDown();
    registry.comeUp();
    const milliseconds begin = world.now();
    const milliseconds last = timeUntilAllAreIn(2 * kInterval);
    report("registry restarted empty", last, begin);
    // A check, its answer, the PUT and its answer.
    EXPECT_LE(last, kInterval + 4 * kStep);
    EXPECT_LE(registry.requestsSince(begin), 2 * kClients + kClients / 100);
    // Spread like the announcements: a tenth of the services in each second, with a HEAD and a PUT
    // each.
    EXPECT_LE(registry.peakSince(begin), 2 * kClients / 10 + kClients / 100);
}

TEST_F(TheHerd, ThatBeganAtOneMomentSendsNoMoreThanTwoRequestsEachWhenTheRegistryRestarts) {
    announceAllWithin(milliseconds(0));
    runUntil(seconds(15));
    ASSERT_EQ(registry.entries(), kClients);
    registry.goDown();
    registry.comeUp();
    const milliseconds begin = world.now();
    const milliseconds last = timeUntilAllAreIn(2 * kInterval);
    report("all in step, registry restarted empty", last, begin);
    EXPECT_LE(last, kInterval + 4 * kStep);
    EXPECT_EQ(registry.peakSince(begin), 2 * kClients);
}

TEST_F(TheHerd, AsksOnceEachIntervalWhileTheRegistryIsAwayAndIsBackWithinOneInterval) {
    announceAllWithin(kInterval);
    runUntil(seconds(30));
    registry.goDown();
    const milliseconds down = world.now();
    runUntil(down + seconds(60));
    const std::size_t asked = registry.requestsSince(down);
    EXPECT_LE(asked, kClients * 6 + kClients / 100);
    EXPECT_GE(asked, kClients * 6 - kClients / 100);
    EXPECT_LE(registry.peakSince(down), kClients / 10 + kClients / 100);
    registry.comeUp();
    const milliseconds begin = world.now();
    const milliseconds last = timeUntilAllAreIn(2 * kInterval);
    report("registry away for a minute", last, begin);
    EXPECT_LE(last, kInterval + 4 * kStep);
    EXPECT_LE(registry.peakSince(begin), 2 * kClients / 10 + kClients / 100);
}

// The delays double from 500 ms to 8 s and are random values from the upper half of each step. So
// two thousand clients that start at the same time spread: each one sends a request every 6 s on
// average.
TEST_F(TheHerd, ThatWasBornWhileTheRegistryWasAwaySpreadsItsRetries) {
    registry.goDown();
    announceAllWithin(milliseconds(0));
    runUntil(seconds(60));
    const std::size_t bound = burst(kClients / 6.0);
    EXPECT_LE(registry.peakSince(seconds(40)), bound);
    registry.comeUp();
    const milliseconds begin = world.now();
    const milliseconds last = timeUntilAllAreIn(2 * kInterval);
    report("born while the registry was away", last, begin);
    EXPECT_LE(last, seconds(8) + 2 * kStep);
    EXPECT_LE(registry.peakSince(begin), bound);
}

}  // namespace
}  // namespace orvx::simulation
