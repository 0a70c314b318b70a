// Blocking calls that never return by design, each in its own process.
#include "SyncTest.h"

namespace orvx::serviceregistryclient {
namespace {

using std::chrono::milliseconds;
using testing::neverReturns;
using testing::Report;

/// Returns a function whose call number `count` calls `report`.
std::function<void()> countdown(int count, Report report) {
    return [count, report = std::move(report)]() mutable {
        if (--count == 0) {
            report();
        }
    };
}

class ABlockingCall : public SyncTest {};

TEST_F(ABlockingCall, WithoutLimitNeverReturnsWhenItsPromiseIsDropped) {
    EXPECT_TRUE(neverReturns([](const Report& report) {
        ClientTestAccess::synchronized([&](auto promise) { promise.reset(), report(); },
                                       milliseconds(0));
    }));
}

TEST_F(ABlockingCall, OverNoServicesNeverReturns) {
    EXPECT_TRUE(neverReturns([this](const Report& report) {
        start();
        report();
        client().registerServicesAtRegistry(registry, {});
    }));
}

TEST_F(ABlockingCall, OverMoreServicesThanItsCounterHoldsNeverReturns) {
    EXPECT_TRUE(neverReturns([this](const Report& report) {
        start();
        const auto answered = countdown(256, report);
        client().onRegister = [&](const auto&, const auto&, const ResponseCallback& callback) {
            callback(ok);
            answered();
            return Handle();
        };
        client().registerServicesAtRegistry(registry, makeServices(256));
    }));
}

TEST_F(ABlockingCall, OverAsManyServicesAsItsCounterHoldsReturns) {
    start();
    client().onRegister = [](const auto&, const auto&, const ResponseCallback& callback) {
        callback(ok);
        return Handle();
    };
    EXPECT_TRUE(client().registerServicesAtRegistry(registry, makeServices(255)).first);
}

TEST_F(ABlockingCall, OverMoreWithdrawalsThanItsCounterHoldsNeverReturnsWithoutLimit) {
    EXPECT_TRUE(neverReturns([this](const Report& report) {
        context.setSyncCallUnregisterTimeout(milliseconds(0));
        start();
        std::map<std::uint64_t, Service> registrations;
        for (std::uint64_t id = 1; id <= 256; ++id) {
            registrations.emplace(id, service());
        }
        const auto answered = countdown(256, report);
        access().collectUnregistrations(
            registrations, [&](std::uint64_t, const Service& one, const ServiceCallback& collect) {
                collect(one, ok);
                answered();
            });
    }));
}

TEST_F(ABlockingCall, WithdrawingNothingNeverReturnsWithoutLimit) {
    EXPECT_TRUE(neverReturns([this](const Report& report) {
        context.setSyncCallUnregisterTimeout(milliseconds(0));
        start();
        report();
        client().unregisterAllServicesFromRegistry();
    }));
}

/// The answer is queued after the callback that waits for it.
TEST_F(ABlockingCall, ThatRegistersFromACallbackNeverReturns) {
    EXPECT_TRUE(neverReturns([this](const Report& report) {
        start();
        client().onRegister = [&](const auto& info, const auto& one, ResponseCallback callback) {
            Handle handle = client().registerForReal(info, one, std::move(callback));
            report();
            return handle;
        };
        std::promise<void> returned;
        onCallbackThread([&] {
            client().registerServiceAtRegistry(registry, service());
            returned.set_value();
        });
        returned.get_future().wait();
    }));
}

TEST_F(ABlockingCall, ThatWithdrawsFromACallbackNeverReturnsWithoutLimit) {
    EXPECT_TRUE(neverReturns([this](const Report& report) {
        context.setSyncCallUnregisterTimeout(milliseconds(0));
        start();
        const auto result = client().registerServiceAtRegistry(registry, service());
        std::promise<void> returned;
        onCallbackThread([&] {
            report();
            result.unregister();
            returned.set_value();
        });
        returned.get_future().wait();
    }));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
