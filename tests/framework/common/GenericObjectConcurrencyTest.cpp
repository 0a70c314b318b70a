// Objects that many threads read, change, copy, assign and write as JSON at the same time. The
// thread sanitizer finds most errors; without it the tests find torn values and deadlocks.

#include <gtest/gtest.h>
#include <orvx/common/ServiceCreate.h>

#include <atomic>
#include <functional>
#include <future>
#include <iostream>
#include <sstream>
#include <thread>

namespace orvx::common {
namespace {

using Value = GenericObjectValue;

constexpr int kRounds = 500;

/// Runs each task repeatedly on its own thread, all at the same time. A deadlock ends the process,
/// because deadlocked threads cannot be joined.
void runTogether(const std::vector<std::function<void(int)>>& tasks) {
    std::promise<void> start;
    const std::shared_future<void> started = start.get_future();
    std::vector<std::future<void>> ended;
    for (const auto& task : tasks) {
        ended.push_back(std::async(std::launch::async, [&task, started] {
            started.wait();
            for (int round = 0; round < kRounds; ++round) {
                task(round);
            }
        }));
    }
    start.set_value();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (auto& end : ended) {
        if (end.wait_until(deadline) != std::future_status::ready) {
            std::cerr << "the threads wait for one another\n";
            std::abort();
        }
    }
}

/// Two equal numbers. A reader that sees unequal ones sees a torn value.
Value pairOf(int number) {
    return Value::List{number, number};
}

bool isPair(const Value& value) {
    const auto* list = std::get_if<Value::List>(&value.data());
    return list != nullptr && list->size() == 2 && list->front() == list->back();
}

TEST(TheGenericObject, IsReadAndChangedByManyThreadsWithoutATornValue) {
    GenericObject object;
    object.setValue("pair", pairOf(0));
    std::atomic<int> torn{0};
    const auto write = [&](int round) { object.setValue("pair", pairOf(round)); };
    const auto read = [&](int) { torn += isPair(object.getValue("pair").value()) ? 0 : 1; };
    runTogether({write, write, read, read});
    EXPECT_EQ(torn, 0);
}

TEST(TheGenericObject, AllowsEveryOperationFromSeveralThreads) {
    GenericObject object;
    const auto change = [&](int round) {
        object.setValue("k" + std::to_string(round % 10), std::vector<std::string>{"a", "b"});
        object.removeValue("k" + std::to_string((round + 5) % 10));
    };
    const auto read = [&](int round) {
        const std::string key = "k" + std::to_string(round % 10);
        object.hasValue(key);
        object.getText(key);
        object.getTexts(key);
    };
    const auto write = [&](int) {
        std::ostringstream stream;
        object.toJSONStream(stream, false);
        EXPECT_EQ(stream.str().back(), '}');
    };
    const auto copy = [&](int) { EXPECT_LE(GenericObject(object).getTexts("k0").size(), 2U); };
    runTogether({change, change, read, write, copy});
}

TEST(TheGenericObject, CanBeAssignedCrosswiseAndToItself) {
    GenericObject left;
    GenericObject right;
    left.setValue("pair", pairOf(1));
    right.setValue("pair", pairOf(2));
    const auto assign = [](GenericObject& to, const GenericObject& from) { to = from; };
    runTogether({[&](int) { assign(left, right); }, [&](int) { assign(right, left); },
                 [&](int) { assign(left, left); },
                 [&](int round) { left.setValue("pair", pairOf(round)); }});
    EXPECT_TRUE(isPair(left.getValue("pair").value()));
    EXPECT_TRUE(isPair(right.getValue("pair").value()));
}

TEST(TheServiceModel, IsReadChangedAndCopiedByManyThreads) {
    ServiceCreate service(std::make_unique<XObject>("", "echo", "/echo"));
    const auto change = [&](int round) {
        service.setId(std::to_string(round));
        service.setPort(round);
        service.setVersions({"1", "2"});
        service.updateServiceInfo(ServiceInfo("echo", "host", 80));
    };
    const auto read = [&](int) {
        EXPECT_EQ(service.getName(), "echo");
        EXPECT_LT(service.getPort(), kRounds);
        EXPECT_LE(service.getVersions().size(), 2U);
    };
    const auto copy = [&](int) { EXPECT_EQ(ServiceCreate(service).getUri(), "/echo"); };
    runTogether({change, change, read, read, copy});
}

}  // namespace
}  // namespace orvx::common
