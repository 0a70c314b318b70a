// Memory that runs out at each allocation of a started library: on its own threads, in OpenSSL, and
// in the calls of a user. Real threads and sockets.
#include "HostileServer.h"
#include "Memory.h"
#include "Recorder.h"
#include "RecordingLogger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

namespace orvx::serviceregistryclient {
namespace {

using namespace std::chrono_literals;
using testing::HostileServer;
using testing::Memory;
using testing::Recorder;
using testing::Request;
using testing::response;
using testing::Script;

/// A registry that refuses the first PUT and the first DELETE, has lost the entry at the first
/// check, refuses the next PUT, and answers further checks slowly.
class ForgetfulRegistry {
  public:
    ForgetfulRegistry() {
        server.onRequest([this](const Request& request) -> Script {
            if (request.method == "PUT") {
                EXPECT_EQ(("{" + request.body).back(), '}') << "it was cut: " << request.body;
                const int put = ++puts_;
                return put == 1 || put == 3
                           ? response(503)
                           : response(201, {{"Location", "/entries/longer-than-any-small-buffer" +
                                                             request.target}});
            }
            if (request.method == "DELETE") {
                return response(++deletes_ == 1 ? 503 : 200);
            }
            if (puts_ < 4) {
                return response(404);
            }
            checked.add("checked");
            return Script().silence();
        });
    }

    Recorder checked;
    HostileServer server;

  private:
    std::atomic<int> puts_{0};
    std::atomic<int> deletes_{0};
};

std::shared_ptr<common::ServiceCreate> service(const std::string& name) {
    return std::make_shared<common::ServiceCreate>(std::make_unique<common::XObject>("", name, ""));
}
IOrvServiceRegistryClient::ResponseCallback record(Recorder& told) {
    return [&told](const OrvRegistrationResponse& response) {
        const Memory::Exempt exempt;
        told.add(OrvRegistrationResponse::statusString(response.status) + std::string("/") +
                 OrvRegistrationResponse::errorCodeString(response.errorCode));
    };
}
IOrvServiceRegistryClient::UnregisterHandle announce(OrvServiceRegistryContext& context,
                                                     std::uint16_t port, Recorder& told) {
    return context.getServiceRegistryClient()->registerServiceAtRegistry(
        common::ServiceInfo("registry", "127.0.0.1", port), service("a service with a long name"),
        record(told));
}
/// The events of registrations by kind.
class Events {
  public:
    void listenTo(OrvServiceRegistryContext& context) {
        context.setRegistrationListener([this](const RegistrationEvent& event) {
            const Memory::Exempt exempt;
            const std::lock_guard lock(mutex_);
            ++counts_[registrationEventToString(event.kind)];
            changed_.notify_all();
        });
    }
    void await(const std::string& kind) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return counts_[kind] > 0; });
    }
    int operator[](const std::string& kind) {
        const std::lock_guard lock(mutex_);
        return counts_[kind];
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, int> counts_;
};

/// The notifications of the status listener.
class Notifications {
  public:
    void listenTo(OrvServiceRegistryContext& context) {
        context.getServiceRegistryClient()->addServiceRegisterStatusListener(
            [this](const std::shared_ptr<const common::ServiceModel>&, bool isRegistered) {
                ++counts_[isRegistered ? 1 : 0];
            });
    }
    int operator[](bool isRegistered) const { return counts_[isRegistered ? 1 : 0]; }

  private:
    std::array<std::atomic<int>, 2> counts_{};
};

/// The limit for operations that may fail, but not for ever.
constexpr int kRounds = 10;

/// Repeats a call that throws. A call that throws must have had no effect.
template <typename Call>
auto call(const Call& callOnce) {
    for (;;) {
        try {
            const Memory::CountedIn countedIn;
            return callOnce();
        } catch (const std::bad_alloc&) {
        }
    }
}

/// Runs a service from its registration to its withdrawal while these allocations fail. Returns the
/// number of allocations. Each operation must be answered once, and must succeed in the end. Each
/// event must be reported once.
template <bool isResilient>
std::size_t live(std::size_t successes, std::size_t failures) {
    ForgetfulRegistry registry;
    Recorder told;
    Events events;
    OrvServiceRegistryContext context;
    context.enableResilience(isResilient);
    events.listenTo(context);
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context.enableRetryOnHttpStatus(true);
    context.setRetryInterval(1ms);
    context.setCheckInterval(0s);
    context.setHeadTimeout(1min);
    context.init();
    Notifications notifications;
    notifications.listenTo(context);

    Memory::failAfter(successes, failures);
    IOrvServiceRegistryClient::UnregisterHandle handle;
    std::string registered = "ERROR/OTHER";  // the description could not be written
    for (int round = 0; round < kRounds && registered == "ERROR/OTHER"; ++round) {
        handle = call([&] { return announce(context, registry.server.port(), told); });
        registered = told.next();
    }
    EXPECT_EQ(registered, "OK/NONE");
    EXPECT_EQ(registry.checked.next(), "checked");
    const std::string refused = "ERROR/SERVICE_REGISTRY_ERROR";  // or not sent
    std::string withdrawn = refused;
    for (int round = 0; round < kRounds && withdrawn == refused; ++round) {
        call([&] { handle(record(told)); });
        withdrawn = told.next();
    }
    EXPECT_EQ(withdrawn, "OK/NONE");
    events.await("withdrawn");
    const std::size_t failed = Memory::recover();
    EXPECT_EQ(events["announced"], events["lost"] + 1);
    EXPECT_EQ(events["withdrawn"], 1);
    // Without resilience the answer to the second DELETE is no event.
    EXPECT_EQ(events["unreachable"], events["reachable"] + (isResilient ? 0 : 1));
    EXPECT_EQ(notifications[true], events["announced"]);
    EXPECT_EQ(notifications[false], events["lost"] + 1);

    call([&] { return announce(context, registry.server.port(), told); });
    EXPECT_EQ(told.next(), "OK/NONE") << "afterwards";
    context.deinit();
    EXPECT_EQ(told.rest(), Recorder::Lines());
    return failed;
}

/// Registers and withdraws a set with blocking calls, which must return.
std::size_t liveInASet(std::size_t successes, std::size_t failures) {
    ForgetfulRegistry registry;
    OrvServiceRegistryContext context;
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context.enableRetryOnHttpStatus(true);
    context.setRetryInterval(1ms);
    context.enableCheck(false);
    context.setSyncCallUnregisterTimeout(0ms);
    context.init();
    auto& client = *context.getServiceRegistryClient();
    const IOrvServiceRegistryClient::ServiceSet services{service("lamp"), service("bell")};
    const common::ServiceInfo where("registry", "127.0.0.1", registry.server.port());

    Memory::failAfter(successes, failures);
    auto result = call([&] { return client.registerServicesAtRegistry(where, services); });
    for (int round = 0; round < kRounds && !result.first; ++round) {
        result = call([&] { return client.registerServicesAtRegistry(where, services); });
    }
    EXPECT_TRUE(result.first);
    for (const auto& [service, outcome] : result.second) {
        bool isWithdrawn = false;
        for (int round = 0; round < kRounds && !isWithdrawn; ++round) {
            isWithdrawn = call([&withdraw = outcome.unregister] {
                return withdraw().status == OrvRegistrationResponse::OK;
            });
        }
        EXPECT_TRUE(isWithdrawn);
    }
    const std::size_t failed = Memory::recover();

    EXPECT_TRUE(client.registerServicesAtRegistry(where, services).first) << "afterwards";
    return failed;
}

/// Announces two services that the registry gives one uuid, and withdraws them.
std::size_t liveAsOneEntry(std::size_t successes, std::size_t failures) {
    HostileServer server;
    server.onRequest([](const Request&) {
        return response(201, {{"Location", "/entries/longer-than-any-small-buffer"}});
    });
    Recorder told;
    Events events;
    OrvServiceRegistryContext context;
    events.listenTo(context);
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context.setRetryInterval(1ms);
    context.enableCheck(false);
    context.init();
    auto& client = *context.getServiceRegistryClient();
    const common::ServiceInfo where("registry", "127.0.0.1", server.port());

    Memory::failAfter(successes, failures);
    IOrvServiceRegistryClient::UnregisterHandle handle;
    for (const char* const name : {"lamp", "bell"}) {
        std::string registered = "ERROR/OTHER";  // the description could not be written
        for (int round = 0; round < kRounds && registered == "ERROR/OTHER"; ++round) {
            handle = call([&] {
                return client.registerServiceAtRegistry(where, service(name), record(told));
            });
            registered = told.next();
        }
        EXPECT_EQ(registered, "OK/NONE");
    }
    server.onRequest([](const Request&) { return response(200); });
    const std::string refused = "ERROR/SERVICE_REGISTRY_ERROR";  // not sent
    std::string withdrawn = refused;
    for (int round = 0; round < kRounds && withdrawn == refused; ++round) {
        call([&] { handle(record(told)); });
        withdrawn = told.next();
    }
    EXPECT_EQ(withdrawn, "OK/NONE");
    const std::size_t failed = Memory::recover();
    context.deinit();
    EXPECT_EQ(told.rest(), Recorder::Lines());
    EXPECT_EQ(events["announced"], 2);
    EXPECT_EQ(events["withdrawn"], 2);
    return failed;
}

/// Ends a context that withdraws its services. The end must not throw, because a destructor calls
/// it.
template <bool isResilient>
std::size_t end(std::size_t successes, std::size_t failures) {
    HostileServer server;
    std::atomic<int> deletes{0};
    server.onRequest([&](const Request& request) {
        deletes += request.method == "DELETE" ? 1 : 0;
        return response(200, {{"Location", "/entries" + request.target}});
    });
    auto context = std::make_unique<OrvServiceRegistryContext>();
    context->enableResilience(isResilient);
    context->setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context->setRetryInterval(1ms);
    context->enableCheck(false);
    context->setWithdrawAtDeinit(1min);
    context->init();
    EXPECT_TRUE(context->getServiceRegistryClient()
                    ->registerServicesAtRegistry(
                        common::ServiceInfo("registry", "127.0.0.1", server.port()),
                        {service("lamp"), service("bell")})
                    .first);
    Memory::failAfter(successes, failures);
    {
        const Memory::CountedIn countedIn;
        context.reset();
    }
    const std::size_t failed = Memory::recover();
    EXPECT_GE(deletes, 2);  // a DELETE whose answer was lost is repeated
    return failed;
}

/// Withdraws a registration that waits for an unreachable registry. Both callbacks must be called
/// once.
std::size_t giveUp(std::size_t successes, std::size_t failures) {
    HostileServer server;
    server.stopListening();
    Recorder told;
    Events events;
    OrvServiceRegistryContext context;
    events.listenTo(context);
    context.enableResilience(true);
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context.setRetryInterval(1h);
    context.init();
    const auto handle = announce(context, server.port(), told);
    events.await("unreachable");
    Memory::failAfter(successes, failures);
    call([&] { handle(record(told)); });
    EXPECT_EQ(told.next(), "ERROR/OTHER");
    EXPECT_EQ(told.next(), "OK/NONE");
    events.await("withdrawn");
    const std::size_t failed = Memory::recover();
    context.deinit();
    EXPECT_EQ(events["withdrawn"], 1);
    EXPECT_EQ(told.rest(), Recorder::Lines());
    return failed;
}

/// Returns the number of allocations of a run. Each of them has failed once.
template <typename Life>
std::size_t sweep(const Life& life, std::size_t failures, std::size_t step) {
    std::size_t n = 0;
    while (life(n, failures) > 0 && !::testing::Test::HasFailure()) {
        n += step;
    }
    std::cout << "swept " << n << " allocations\n";
    return n;
}

TEST(AProcessOutOfMemory, LosesNothingWhicheverAllocationFails) {
    EXPECT_GT(sweep(live<false>, 1, 1), 200u);
}

TEST(AProcessOutOfMemory, LosesNothingWhenSeveralAllocationsFailInARow) {
    EXPECT_GT(sweep(live<false>, 4, 3), 200u);
}

TEST(AProcessOutOfMemory, LosesNothingWithResilienceWhicheverAllocationFails) {
    EXPECT_GT(sweep(live<true>, 1, 1), 200u);
}

TEST(AProcessOutOfMemory, LosesNothingWithResilienceWhenSeveralAllocationsFailInARow) {
    EXPECT_GT(sweep(live<true>, 4, 3), 200u);
}

TEST(AProcessOutOfMemory, GivesUpARegistrationOnceWhicheverAllocationFails) {
    EXPECT_GT(sweep(giveUp, 1, 1), 10u);
}

// The timer allocates for some tasks only, so each number of successes is tried with several.
TEST(AProcessOutOfMemory, ForgetsNoRequestWithResilienceIfAllMemoryIsGoneForAMoment) {
    HostileServer server;
    server.onRequest([](const Request& request) {
        return response(201, {{"Location", "/entries" + request.target}});
    });
    Recorder told;
    OrvServiceRegistryContext context;
    context.enableResilience(true);
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context.enableCheck(false);
    context.setRetryInterval(1ms);
    context.init();
    int announced = 0;
    for (std::size_t successes = 0; announced < 200; ++successes) {
        for (int i = 0; i < 20; ++i) {
            Memory::failAfter(successes, 1000000);
            bool isAccepted = false;
            try {
                const Memory::CountedIn countedIn;
                announce(context, server.port(), told);
                isAccepted = true;
            } catch (const std::bad_alloc&) {
            }
            Memory::recover();
            announced += isAccepted && told.next() == "OK/NONE" ? 1 : 0;
        }
        ASSERT_EQ(told.rest(), Recorder::Lines());
        ASSERT_FALSE(HasFailure());
    }
}

TEST(AProcessOutOfMemory, AnswersEachServiceOfOneEntryWhicheverAllocationFails) {
    EXPECT_GT(sweep(liveAsOneEntry, 1, 1), 100u);
}

TEST(AProcessOutOfMemory, WithdrawsItsServicesAtTheEndWhicheverAllocationFails) {
    EXPECT_GT(sweep(end<false>, 1, 1), 10u);
    EXPECT_GT(sweep(end<true>, 1, 1), 10u);
}

TEST(AProcessOutOfMemory, WithdrawsItsServicesAtTheEndWhenSeveralAllocationsFailInARow) {
    EXPECT_GT(sweep(end<false>, 4, 3), 10u);
    EXPECT_GT(sweep(end<true>, 4, 3), 10u);
}

TEST(AProcessOutOfMemory, ComesBackFromABlockingCallWhicheverAllocationFails) {
    EXPECT_GT(sweep(liveInASet, 1, 1), 200u);
}

TEST(AProcessOutOfMemory, ComesBackFromABlockingCallWhenSeveralAllocationsFailInARow) {
    EXPECT_GT(sweep(liveInASet, 4, 3), 200u);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
