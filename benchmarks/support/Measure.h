#pragma once

#include <orvx/utility/Mutex.h>

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace orvx::benchmarks {

/// The processor time of this process so far, user and system together.
std::chrono::microseconds cpuTime();
/// The processor time of `work`, in microseconds for each of `count`.
double cpuPer(std::size_t count, const std::function<void()>& work);
/// Makes the allocator join freed blocks now. This belongs to the measured work, because otherwise
/// the next allocation pays for it.
void settleHeap();
/// The wall-clock time of `work`, in microseconds for each of `count`.
double wallPer(std::size_t count, const std::function<void()>& work);

/// Restricts this process, and the threads that it makes later, to the first of the processors that
/// it was allowed to use when it started. Throws if there was only one: the server has the last
/// one.
void useFirstProcessor();
void useLastProcessor();
/// Whether the two processes may run on the same processor; 0 is this process.
bool shareProcessor(pid_t one, pid_t other);

double median(std::vector<double> samples);
/// The quantile of a sorted sample; `share` is from 0 to 1.
double quantile(std::vector<double> samples, double share);

/// One line of JSON for scripts/bench: a name and, for each key, a list of figures.
class Line {
  public:
    explicit Line(const std::string& name);
    Line& add(const std::string& key, const std::vector<double>& figures);
    Line& add(const std::string& key, double figure) { return add(key, std::vector{figure}); }
    void print() const;

  private:
    std::string text_;
};

/// The number in an argument of the program.
std::size_t argument(int argc, char** argv, int index, std::size_t byDefault);

/// Waits until an event has happened `count` times. Throws if that takes too long.
class Countdown {
  public:
    explicit Countdown(std::size_t count) : left_(count) {}
    /// May be called by any thread.
    void count() ORVX_EXCLUDES(mutex_);
    void wait() ORVX_EXCLUDES(mutex_);

  private:
    utility::Mutex mutex_;
    std::condition_variable done_;
    std::size_t left_ ORVX_GUARDED_BY(mutex_);
};

/// Throws if the condition is false, because the measurement would mean nothing.
void require(bool condition, const char* what);

}  // namespace orvx::benchmarks
