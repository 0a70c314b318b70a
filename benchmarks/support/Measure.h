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

/// Processor time of this process so far, user and system together.
std::chrono::microseconds cpuTime();
/// What `work` took of it, in microseconds for each of `count`.
double cpuPer(std::size_t count, const std::function<void()>& work);
/// Has the allocator do what it has put off: joining what was freed. Belongs to what is measured,
/// or else whoever allocates next pays.
void settleHeap();
/// What `work` took on the clock, in microseconds for each of `count`.
double wallPer(std::size_t count, const std::function<void()>& work);

/// Keeps this process and the threads that it makes later on the first of the processors that it
/// might use when it began. Throws when that was only one: the server has the last one.
void useFirstProcessor();
void useLastProcessor();
/// Whether the two processes, 0 being this one, may run on the same processor.
bool shareProcessor(pid_t one, pid_t other);

double median(std::vector<double> samples);
/// Of a sorted sample, `share` from 0 to 1.
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

/// The number that a program is given as its argument.
std::size_t argument(int argc, char** argv, int index, std::size_t byDefault);

/// Waits until something has happened as often as it should; throws when that takes too long.
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

/// Throws when it does not hold: what was measured would mean nothing.
void require(bool condition, const char* what);

}  // namespace orvx::benchmarks
