// The class of all threads of the framework.

#include <orvx/utility/WorkerThread.h>

#include "Support.h"

#include <gtest/gtest.h>

#include <csignal>
#include <system_error>
#include <thread>

namespace orvx::utility {
namespace {

using test::Event;
using test::Gate;

TEST(AWorkerThread, IsShownUnderItsName) {
    Gate gate;
    WorkerThread worker;
    worker.start("ORVX_Name", gate.task());
    ASSERT_TRUE(gate.isEntered());
    EXPECT_EQ(test::threadsNamed("ORVX_Name"), 1u);
    gate.open();
    worker.end();
    EXPECT_EQ(test::threadsNamed("ORVX_Name"), 0u);
}

TEST(AWorkerThread, IsShownUnderTheFirstFifteenBytesOfALongName) {
    Gate gate;
    WorkerThread worker;
    worker.start("ORVX_FifteenByteAndMore", gate.task());
    ASSERT_TRUE(gate.isEntered());
    EXPECT_EQ(test::threadsNamed("ORVX_FifteenByt"), 1u);
    gate.open();
}

TEST(AWorkerThread, HasItsNameWhenStartReturns) {
    int misnamed = 0;
    for (int i = 0; i < 500; ++i) {
        Gate gate;
        WorkerThread worker;
        worker.start("ORVX_Name", gate.task());
        misnamed += test::threadsNamed("ORVX_Name") == 1 ? 0 : 1;
        gate.open();
    }
    EXPECT_EQ(misnamed, 0);
}

TEST(AWorkerThread, BlocksAllSignalsButThoseOfACrash) {
    std::vector<int> open;
    WorkerThread worker;
    worker.start("ORVX_Signals", [&] { open = test::openSignals(); });
    worker.end();
    EXPECT_EQ(open, (std::vector<int>{SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}));
}

TEST(AWorkerThread, LeavesASignalOfACrashBlockedWhereItWas) {
    sigset_t crash;
    sigset_t before;
    sigemptyset(&crash);
    sigaddset(&crash, SIGABRT);
    std::vector<int> open;
    WorkerThread worker;
    pthread_sigmask(SIG_BLOCK, &crash, &before);
    worker.start("ORVX_Signals", [&] { open = test::openSignals(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    worker.end();
    EXPECT_EQ(open, (std::vector<int>{SIGILL, SIGTRAP, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}));
}

TEST(AWorkerThread, LeavesTheSignalsOfTheThreadThatMakesItAlone) {
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    WorkerThread worker;
    worker.start("ORVX_Signals", test::nothing);
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << signal;
    }
}

TEST(AWorkerThread, IsWaitedForByItsEnd) {
    Gate gate;
    WorkerThread worker;
    worker.start("ORVX_Wait", gate.task());
    auto end = std::async(std::launch::async, [&] { worker.end(); });
    EXPECT_FALSE(test::isReady(end, test::kAWhile));
    gate.open();
    EXPECT_TRUE(test::isReady(end));
}

TEST(AWorkerThread, IsWaitedForByItsDestructor) {
    bool returned = false;
    {
        WorkerThread worker;
        worker.start("ORVX_Wait", [&] { returned = true; });
    }
    EXPECT_TRUE(returned);
}

TEST(AWorkerThread, EndsWithoutHavingBeenStarted) {
    WorkerThread worker;
    worker.end();
    EXPECT_FALSE(worker.isCurrent());
}

TEST(AWorkerThread, KnowsWhoRunsOnIt) {
    bool onIt = false;
    bool onAnother = true;
    WorkerThread other;
    WorkerThread worker;
    worker.start("ORVX_Current", [&] {
        onIt = worker.isCurrent();
        onAnother = other.isCurrent();
    });
    EXPECT_FALSE(worker.isCurrent());
    worker.end();
    EXPECT_TRUE(onIt);
    EXPECT_FALSE(onAnother);
}

TEST(AWorkerThread, MayBeDestroyedByItself) {
    Event go;
    Event destroyed;
    auto worker = std::make_unique<WorkerThread>();
    worker->start("ORVX_Self", [&] {
        go.happens();
        worker.reset();
        destroyed.set();
    });
    go.set();
    EXPECT_TRUE(destroyed.happens());
}

TEST(AWorkerThread, IsNoneThatItWasDestroyedBy) {
    alignas(WorkerThread) std::byte place[sizeof(WorkerThread)];
    Event go;
    Event answered;
    bool current = true;
    auto* const first = new (place) WorkerThread;
    first->start("ORVX_Self", [&] {
        go.happens();
        first->~WorkerThread();
        const auto* const second = new (place) WorkerThread;
        current = second->isCurrent();
        answered.set();
    });
    go.set();
    ASSERT_TRUE(answered.happens());
    EXPECT_FALSE(current);
    reinterpret_cast<WorkerThread*>(place)->~WorkerThread();
}

TEST(AWorkerThread, IsEndedBeforeItIsStartedAnew) {
    bool first = false;
    bool second = false;
    WorkerThread worker;
    worker.start("ORVX_First", [&] { first = true; });
    worker.start("ORVX_Second", [&] { second = first; });
    worker.end();
    EXPECT_TRUE(second);
}

TEST(AWorkerThread, DestroysItsFunctionWhenThatHasReturned) {
    std::thread::id destroyedOn;
    std::thread::id ranOn;
    WorkerThread worker;
    worker.start("ORVX_Function", test::watched([&] { ranOn = std::this_thread::get_id(); },
                                                [&] { destroyedOn = std::this_thread::get_id(); }));
    worker.end();
    EXPECT_NE(ranOn, std::thread::id());
    EXPECT_EQ(destroyedOn, ranOn);
}

TEST(AWorkerThread, ThatCannotBeMadeThrowsAndCanBeStartedLater) {
    bool ran = false;
    WorkerThread worker;
    {
        const test::ThreadsCannotBeMade fault;
        EXPECT_THROW(worker.start("ORVX_None", test::nothing), std::system_error);
    }
    worker.start("ORVX_Later", [&] { ran = true; });
    worker.end();
    EXPECT_TRUE(ran);
}

TEST(AWorkerThread, ReportsNoForkedChildInTheProcessThatMadeIt) {
    WorkerThread worker;
    EXPECT_FALSE(worker.isInForkedChild());
    worker.start("ORVX_Here", test::nothing);
    EXPECT_FALSE(worker.isInForkedChild());
}

}  // namespace
}  // namespace orvx::utility
