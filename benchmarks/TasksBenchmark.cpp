// The executor and the timer alone, compared with the simplest implementation: a loop on a mutex
// and a deque, or on a mutex and a multimap.
// One or two benchmark threads add tasks and wait until theirs have run; the worker runs them.

#include <benchmark/benchmark.h>

#include <orvx/utility/QueuedTimer.h>
#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace orvx::benchmarks {

namespace {

using Clock = std::chrono::steady_clock;
using Task = std::function<void()>;
using std::chrono::milliseconds;

class Executor {
  public:
    Executor() { executor_.start(); }
    void add(Task task) { executor_.add(std::move(task)); }

  private:
    utility::SingleThreadAsyncTaskExecutor executor_{"executor", {}};
};

class Timer {
  public:
    Timer() { timer_.start("timer"); }
    void add(milliseconds delay, Task task) { timer_.addTask(delay, std::move(task)); }
    void add(Task task) { add(milliseconds(0), std::move(task)); }

  private:
    utility::QueuedTimer timer_;
};

/// A thread that runs the tasks of `Queue`.
template <typename Queue>
class BareLoop {
  public:
    ~BareLoop() {
        {
            const std::lock_guard lock(mutex_);
            isEnding_ = true;
        }
        changed_.notify_one();
        thread_.join();
    }
    template <typename... Arguments>
    void add(Arguments&&... arguments) {
        const std::lock_guard lock(mutex_);
        if (queue_.push(std::forward<Arguments>(arguments)...)) {
            changed_.notify_one();
        }
    }

  private:
    void run() {
        std::unique_lock lock(mutex_);
        while (!isEnding_) {
            if (!queue_.isReady()) {
                queue_.wait(changed_, lock);
                continue;
            }
            const Task task = queue_.pop();
            lock.unlock();
            task();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    Queue queue_;
    bool isEnding_ = false;
    std::thread thread_{[this] { run(); }};
};

struct BareQueue {
    std::deque<Task> tasks;

    bool push(Task task) {
        tasks.push_back(std::move(task));
        return tasks.size() == 1;
    }
    bool isReady() const { return !tasks.empty(); }
    Task pop() {
        Task task = std::move(tasks.front());
        tasks.pop_front();
        return task;
    }
    static void wait(std::condition_variable& changed, std::unique_lock<std::mutex>& lock) {
        changed.wait(lock);
    }
};

struct BareMap {
    std::multimap<Clock::time_point, Task> tasks;

    bool push(milliseconds delay, Task task) {
        const auto added = tasks.emplace(Clock::now() + delay, std::move(task));
        return added == tasks.begin();
    }
    bool push(Task task) { return push(milliseconds(0), std::move(task)); }
    bool isReady() const { return !tasks.empty() && tasks.begin()->first <= Clock::now(); }
    Task pop() { return std::move(tasks.extract(tasks.begin()).mapped()); }
    void wait(std::condition_variable& changed, std::unique_lock<std::mutex>& lock) const {
        if (tasks.empty()) {
            changed.wait(lock);
        } else {
            changed.wait_until(lock, tasks.begin()->first);
        }
    }
};

/// Adds this many tasks, and waits until the last one has run.
template <typename Runner>
void runBatch(Runner& runner, std::size_t count) {
    std::mutex mutex;
    std::condition_variable ended;
    bool hasEnded = false;
    std::size_t run = 0;
    for (std::size_t i = 0; i < count; ++i) {
        runner.add([&] {
            if (++run == count) {
                const std::lock_guard lock(mutex);
                hasEnded = true;
                ended.notify_one();
            }
        });
    }
    std::unique_lock lock(mutex);
    ended.wait(lock, [&] { return hasEnded; });
}

/// The objects that all benchmark threads of one measurement share.
template <typename Runner>
std::unique_ptr<Runner> shared;

template <typename Runner>
void makeEmpty(const benchmark::State&) {
    shared<Runner> = std::make_unique<Runner>();
}

template <typename Runner>
void makeFull(const benchmark::State& state) {
    makeEmpty<Runner>(state);
    for (std::int64_t i = 0; i < state.range(0); ++i) {
        shared<Runner>->add(std::chrono::hours(1) + milliseconds(i * 7919 % 100000), [] {});
    }
}

template <typename Runner>
void end(const benchmark::State&) {
    shared<Runner>.reset();
}

/// The argument is the number of tasks at a time.
template <typename Runner>
void drain(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    for ([[maybe_unused]] const auto ignored : state) {
        runBatch(*shared<Runner>, count);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

/// A hundred due tasks among a number of tasks that are not due.
template <typename Runner>
void passThrough(benchmark::State& state) {
    constexpr std::size_t kTasks = 100;
    for ([[maybe_unused]] const auto ignored : state) {
        runBatch(*shared<Runner>, kTasks);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kTasks));
}

void shape(benchmark::internal::Benchmark* made) {
    made->Arg(1)->Arg(100)->Arg(10000)->Arg(100000)->ThreadRange(1, 2);
    made->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kMicrosecond);
}

using BareExecutor = BareLoop<BareQueue>;
using BareTimer = BareLoop<BareMap>;

BENCHMARK_TEMPLATE(drain, Executor)
    ->Apply(shape)
    ->Setup(makeEmpty<Executor>)
    ->Teardown(end<Executor>);
BENCHMARK_TEMPLATE(drain, BareExecutor)
    ->Apply(shape)
    ->Setup(makeEmpty<BareExecutor>)
    ->Teardown(end<BareExecutor>);
BENCHMARK_TEMPLATE(passThrough, Timer)->Apply(shape)->Setup(makeFull<Timer>)->Teardown(end<Timer>);
BENCHMARK_TEMPLATE(passThrough, BareTimer)
    ->Apply(shape)
    ->Setup(makeFull<BareTimer>)
    ->Teardown(end<BareTimer>);

}  // namespace

}  // namespace orvx::benchmarks
