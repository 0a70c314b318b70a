// Time, processors, and figures. The countdown is entered by any thread; its lock is a leaf lock.
// Everything else is entered by the main thread.

#include "Measure.h"

#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace orvx::benchmarks {

using std::chrono::duration;
using std::chrono::microseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

microseconds toMicroseconds(const timeval& time) {
    return seconds(time.tv_sec) + microseconds(time.tv_usec);
}

double each(std::size_t count, duration<double, std::micro> all) {
    return all.count() / static_cast<double>(count);
}

cpu_set_t processorsOf(pid_t process) {
    cpu_set_t allowed;
    require(::sched_getaffinity(process, sizeof allowed, &allowed) == 0, "no such process");
    return allowed;
}

struct Processors {
    int first = -1;
    int last = -1;
};

Processors readProcessors() {
    const cpu_set_t allowed = processorsOf(0);
    Processors read;
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &allowed)) {
            read.first = read.first < 0 ? i : read.first;
            read.last = i;
        }
    }
    return read;
}

/// Read once, before this process is restricted to fewer processors: a child inherits the
/// restriction.
const Processors& processors() {
    static const Processors atTheBeginning = readProcessors();
    return atTheBeginning;
}

void useProcessor(int processor) {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    CPU_SET(processor, &allowed);
    require(::sched_setaffinity(0, sizeof allowed, &allowed) == 0, "a processor cannot be used");
}

}  // namespace

microseconds cpuTime() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return toMicroseconds(usage.ru_utime) + toMicroseconds(usage.ru_stime);
}

double cpuPer(std::size_t count, const std::function<void()>& work) {
    const microseconds begin = cpuTime();
    work();
    return each(count, cpuTime() - begin);
}

void settleHeap() {
    constexpr std::size_t kLarge = 64 * 1024;
    void* volatile block = std::malloc(kLarge);
    std::free(block);
}

double wallPer(std::size_t count, const std::function<void()>& work) {
    const auto begin = steady_clock::now();
    work();
    return each(count, steady_clock::now() - begin);
}

void useFirstProcessor() {
    require(processors().first != processors().last,
            "client and server need a processor each, and there is only one");
    useProcessor(processors().first);
}

void useLastProcessor() {
    useProcessor(processors().last);
}

bool shareProcessor(pid_t one, pid_t other) {
    const cpu_set_t ofOne = processorsOf(one);
    const cpu_set_t ofOther = processorsOf(other);
    cpu_set_t ofBoth;
    CPU_AND(&ofBoth, &ofOne, &ofOther);
    return CPU_COUNT(&ofBoth) != 0;
}

double median(std::vector<double> samples) {
    return quantile(std::move(samples), 0.5);
}

double quantile(std::vector<double> samples, double share) {
    std::sort(samples.begin(), samples.end());
    return samples[static_cast<std::size_t>(share * static_cast<double>(samples.size() - 1))];
}

Line::Line(const std::string& name) : text_("{\"name\": \"" + name + '"') {}

Line& Line::add(const std::string& key, const std::vector<double>& figures) {
    std::ostringstream list;
    const char* separator = "";
    for (const double figure : figures) {
        list << separator << figure;
        separator = ", ";
    }
    text_ += ", \"" + key + "\": [" + list.str() + ']';
    return *this;
}

void Line::print() const {
    std::cout << text_ << "}" << std::endl;
}

std::size_t argument(int argc, char** argv, int index, std::size_t byDefault) {
    return argc > index ? std::stoul(argv[index]) : byDefault;
}

void Countdown::count() {
    const utility::MutexLock lock(mutex_);
    if (--left_ == 0) {
        done_.notify_one();
    }
}

void Countdown::wait() {
    const auto end = steady_clock::now() + std::chrono::minutes(5);
    utility::MutexLock lock(mutex_);
    while (left_ != 0) {
        require(done_.wait_until(lock.native(), end) == std::cv_status::no_timeout,
                "not everything was answered");
    }
}

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

}  // namespace orvx::benchmarks
