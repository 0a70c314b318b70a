// The executor's contract beyond the part that it shares with the timer.

#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>

#include "Support.h"

#include <gtest/gtest.h>

#include <numeric>
#include <stdexcept>
#include <thread>

namespace orvx::utility {
namespace {

using test::Event;
using test::Gate;
using test::Journal;
using Notes = std::vector<std::string>;

std::vector<int> countedTo(std::size_t count) {
    std::vector<int> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

TEST(TheExecutor, RunsTasksInTheOrderInWhichTheyWereAdded) {
    Journal<int> journal;
    SingleThreadAsyncTaskExecutor executor("ORVX_Order", nullptr);
    executor.start();
    for (int i = 0; i < 1000; ++i) {
        executor.add([&journal, i] { journal.write(i); });
    }
    EXPECT_EQ(journal.await(1000), countedTo(1000));
}

TEST(TheExecutor, RunsAListAfterEarlierTasksAndBeforeLaterOnes) {
    Journal<int> journal;
    SingleThreadAsyncTaskExecutor executor("ORVX_List", nullptr);
    executor.add([&] { journal.write(0); });
    SingleThreadAsyncTaskExecutor::Tasks tasks;
    tasks.emplace_back([&] { journal.write(1); });
    tasks.emplace_back([&] { journal.write(2); });
    executor.add(std::move(tasks));
    executor.add([&] { journal.write(3); });
    executor.start();
    EXPECT_EQ(journal.await(4), countedTo(4));
}

TEST(TheExecutor, KeepsTheOrderOfAHundredThousandQueuedTasks) {
    std::vector<int> order;
    Journal<std::size_t> thousands;
    SingleThreadAsyncTaskExecutor executor("ORVX_Order", nullptr);
    for (int i = 0; i < 100'000; ++i) {
        executor.add([&, i] {
            order.push_back(i);
            if (order.size() % 1000 == 0) {
                thousands.write(order.size());
            }
        });
    }
    executor.start();
    EXPECT_EQ(thousands.await(100).size(), 100u);
    executor.stopAndClear();
    EXPECT_EQ(order, countedTo(100'000));
}

TEST(TheExecutor, KeepsTheOrderOfEachThreadThatAdds) {
    Journal<std::pair<int, int>> journal;
    SingleThreadAsyncTaskExecutor executor("ORVX_Order", nullptr);
    executor.start();
    std::vector<std::future<void>> adders;
    for (int adder = 0; adder < 3; ++adder) {
        adders.push_back(std::async(std::launch::async, [&, adder] {
            for (int i = 0; i < 300; ++i) {
                executor.add([&journal, adder, i] { journal.write({adder, i}); });
            }
        }));
    }
    std::vector<int> next(3, 0);
    for (const auto& [adder, number] : journal.await(900)) {
        EXPECT_EQ(number, next.at(static_cast<std::size_t>(adder))++);
    }
    EXPECT_EQ(next, std::vector<int>(3, 300));
}

TEST(TheExecutor, KeepsTasksThatAreAddedBeforeItIsStarted) {
    Journal<std::string> journal;
    SingleThreadAsyncTaskExecutor executor("ORVX_Keep", nullptr);
    executor.add([&] { journal.write("early"); });
    executor.stopAndClear();
    EXPECT_EQ(journal.notes(), Notes{});
    executor.start();
    EXPECT_EQ(journal.await(1), Notes{"early"});
}

TEST(TheExecutor, KeepsItsTasksWhenItCannotBeStarted) {
    Journal<std::string> journal;
    SingleThreadAsyncTaskExecutor executor("ORVX_Keep", nullptr);
    executor.add([&] { journal.write("early"); });
    {
        const test::ThreadsCannotBeMade fault;
        EXPECT_THROW(executor.start(), std::system_error);
    }
    executor.start();
    EXPECT_EQ(journal.await(1), Notes{"early"});
}

TEST(TheExecutor, KeepsTasksThatAreAddedAfterAStopForTheNextStart) {
    Journal<std::string> journal;
    SingleThreadAsyncTaskExecutor executor("ORVX_Keep", nullptr);
    executor.start();
    executor.stopAndClear();
    executor.add([&] { journal.write("kept"); });
    executor.stopAndClear();
    EXPECT_EQ(journal.notes(), Notes{});
    executor.start();
    EXPECT_EQ(journal.await(1), Notes{"kept"});
}

TEST(TheExecutor, KeepsATaskThatTheRunningOneAddsDuringAStopForTheNextStart) {
    Journal<std::string> journal;
    Gate gate;
    SingleThreadAsyncTaskExecutor executor("ORVX_Keep", nullptr);
    executor.start();
    executor.add([&] {
        gate.pass();
        executor.add([&] { journal.write("kept"); });
    });
    executor.add(test::watched([&] { journal.write("ran"); }, [&] { gate.open(); }));
    ASSERT_TRUE(gate.isEntered());
    executor.stopAndClear();
    EXPECT_EQ(journal.notes(), Notes{});
    executor.start();
    EXPECT_EQ(journal.await(1), Notes{"kept"});
}

TEST(TheExecutor, DropsTasksThatWereNeverStartedWhenItIsDestroyed) {
    Journal<std::string> journal;
    {
        SingleThreadAsyncTaskExecutor executor("ORVX_Drop", nullptr);
        const auto addAnother = [&] {
            executor.add(test::watched([&] { journal.write("ran"); },
                                       [&] { journal.write("inner dropped"); }));
            journal.write("dropped");
        };
        executor.add(test::watched([&] { journal.write("ran"); }, addAnother));
    }
    EXPECT_EQ(journal.notes(), (Notes{"inner dropped", "dropped"}));
}

TEST(TheErrorHandler, IsGivenTheTextsOfExceptionsOnTheWorker) {
    Journal<std::string> texts;
    Journal<std::thread::id> threads;
    SingleThreadAsyncTaskExecutor executor("ORVX_Error", [&](const std::string& text) {
        threads.write(std::this_thread::get_id());
        texts.write(text);
    });
    executor.start();
    executor.add([&] { threads.write(std::this_thread::get_id()); });
    executor.add([] { throw std::runtime_error("first"); });
    executor.add([] { throw 7; });
    executor.add([] { throw std::logic_error("third"); });
    EXPECT_EQ(texts.await(3), (Notes{"first", "unknown exception", "third"}));
    EXPECT_EQ(threads.notes(), std::vector<std::thread::id>(4, threads.notes().at(0)));
}

TEST(TheErrorHandler, IsNotCalledForTasksThatDoNotThrow) {
    Event ran;
    Journal<std::string> texts;
    SingleThreadAsyncTaskExecutor executor("ORVX_Error",
                                           [&](const std::string& text) { texts.write(text); });
    executor.start();
    executor.add([&] { ran.set(); });
    EXPECT_TRUE(ran.happens());
    executor.stopAndClear();
    EXPECT_EQ(texts.notes(), Notes{});
}

TEST(TheErrorHandler, MayThrowAnything) {
    Event ran;
    SingleThreadAsyncTaskExecutor executor("ORVX_Error", [](const std::string& text) {
        if (text == "unknown exception") {
            throw 8;
        }
        throw std::runtime_error(text);
    });
    executor.start();
    executor.add([] { throw std::runtime_error("failed"); });
    executor.add([] { throw 7; });
    executor.add([&] { ran.set(); });
    EXPECT_TRUE(ran.happens());
}

TEST(TheErrorHandler, MayUseTheExecutor) {
    Event ran;
    SingleThreadAsyncTaskExecutor* self = nullptr;
    SingleThreadAsyncTaskExecutor executor(
        "ORVX_Error", [&](const std::string& /*text*/) { self->add([&] { ran.set(); }); });
    self = &executor;
    executor.start();
    executor.add([] { throw std::runtime_error("failed"); });
    EXPECT_TRUE(ran.happens());
}

}  // namespace
}  // namespace orvx::utility
