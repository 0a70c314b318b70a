// Where and when the executor and the timer destroy tasks: never under their lock, so that the
// destructor of a task may use them.

#include "Support.h"
#include "TaskRunners.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <thread>

namespace orvx::utility {
namespace {

using Notes = std::vector<std::string>;

template <typename Runner>
class ATask : public test::TaskRunnerFixture<Runner> {};

TYPED_TEST_SUITE(ATask, test::TaskRunners, test::RunnerNames);

TYPED_TEST(ATask, IsDestroyedBeforeTheNextOneRuns) {
    this->runner->start();
    this->runner->add(this->gate.task());
    this->runner->add(test::watched([&] { this->journal.write("first runs"); },
                                    [&] { this->journal.write("first ends"); }));
    this->runner->add([&] { this->journal.write("second runs"); });
    this->gate.open();
    EXPECT_EQ(this->journal.await(3), (Notes{"first runs", "first ends", "second runs"}));
}

TYPED_TEST(ATask, IsDestroyedOnTheThreadThatRanIt) {
    const auto note = [&] { this->threads.write(std::this_thread::get_id()); };
    this->runner->start();
    this->runner->add(test::watched(note, note));
    const auto seen = this->threads.await(2);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_NE(seen[0], std::this_thread::get_id());
}

TYPED_TEST(ATask, IsDestroyedAfterItHasThrown) {
    this->runner->start();
    this->runner->add(test::watched([] { throw std::runtime_error("failed"); },
                                    [&] { this->journal.write("destroyed"); }));
    EXPECT_EQ(this->journal.await(1), (Notes{"destroyed"}));
}

TYPED_TEST(ATask, ThatIsStillQueuedIsDroppedOnTheThreadThatStops) {
    this->runner->start();
    this->runner->add(this->gate.task());
    this->runner->add(test::watched([&] { this->journal.write("ran"); },
                                    [&] { this->threads.write(std::this_thread::get_id()); }));
    ASSERT_TRUE(this->gate.isEntered());
    auto stop = std::async(std::launch::async, [&] {
        this->runner->stop();
        return std::this_thread::get_id();
    });
    const auto droppedOn = this->threads.await(1);
    this->gate.open();
    ASSERT_TRUE(test::isReady(stop));
    EXPECT_EQ(droppedOn, std::vector<std::thread::id>{stop.get()});
    EXPECT_EQ(this->journal.notes(), Notes{});
}

TYPED_TEST(ATask, AddsAnotherWhenItIsDestroyedAfterItRan) {
    this->runner->start();
    this->runner->add(test::watched(
        test::nothing, [&] { this->runner->add([&] { this->journal.write("added"); }); }));
    EXPECT_EQ(this->journal.await(1), (Notes{"added"}));
}

TYPED_TEST(ATask, MayAddAnotherWhenItIsDroppedByAStop) {
    this->runner->start();
    this->runner->add(this->gate.task());
    this->runner->add(test::watched(test::nothing, [&] {
        this->runner->add([&] { this->journal.write("ran"); });
        this->journal.write("dropped");
        this->gate.open();
    }));
    ASSERT_TRUE(this->gate.isEntered());
    this->runner->stop();
    EXPECT_EQ(this->journal.notes(), (Notes{"dropped"}));
}

TYPED_TEST(ATask, MayAddAnotherWhenItIsDroppedByTheEndAndThatOneIsDroppedToo) {
    this->runner->start();
    this->runner->add(this->gate.task());
    auto& ending = *this->runner;
    this->runner->add(test::watched(test::nothing, [&] {
        ending.add(test::watched([&] { this->journal.write("ran"); },
                                 [&] { this->journal.write("inner"); }));
        this->journal.write("outer");
        this->gate.open();
    }));
    ASSERT_TRUE(this->gate.isEntered());
    this->runner.reset();
    EXPECT_EQ(this->journal.notes(), (Notes{"inner", "outer"}));
}

TYPED_TEST(ATask, ThatIsAddedByTheRunningOneDuringTheEndIsDropped) {
    auto& ending = *this->runner;
    this->runner->start();
    this->runner->add([&] {
        this->gate.pass();
        ending.add(test::watched([&] { this->journal.write("ran"); },
                                 [&] { this->journal.write("dropped"); }));
        this->journal.write("added");
    });
    this->runner->add(test::watched(test::nothing, [&] { this->gate.open(); }));
    ASSERT_TRUE(this->gate.isEntered());
    this->runner.reset();
    EXPECT_EQ(this->journal.notes(), (Notes{"dropped", "added"}));
}

}  // namespace
}  // namespace orvx::utility
