// Many services in one process: all are registered, checked once, lost by the registry, registered
// again and withdrawn. Measures the cost of each step for one service as a multiple of a request
// through libcurl alone, the memory for one service, and whether an event is missed. The main
// thread calls and waits; callbacks and the listener only count.
// Usage: orvx_bench_services SERVICES

#include "ClientLoad.h"
#include "Measure.h"
#include "Process.h"
#include "RunningContext.h"
#include "ServerProcess.h"
#include "Yardsticks.h"

#include <algorithm>
#include <atomic>
#include <chrono>

namespace orvx::benchmarks {

namespace {

/// Much longer than a burst, so that one burst ends before the next begins.
std::chrono::seconds intervalFor(std::size_t services) {
    return std::chrono::seconds(std::max<std::size_t>(3, services / 3000));
}

class ServicesBenchmark {
  public:
    explicit ServicesBenchmark(std::size_t count)
        : count_(count), recovered_(count), context_(intervalFor(count)) {
        context_.client().addServiceRegisterStatusListener(
            [this](const auto&, bool isRegistered) { notify(isRegistered); });
        for (std::size_t i = 0; i < count; ++i) {
            services_.push_back(makeService(i));
        }
    }

    void run() {
        load_.registerAll(sample_.services);
        load_.withdrawAll();
        const auto threadsBefore = static_cast<double>(threads());
        const std::size_t heapBefore = heapInUse();
        Line line(std::to_string(count_) + " services");
        line.add("registration", step(Method::Put, [this] { load_.registerAll(services_); }));
        line.add("bytes", bytesOfOne(heapInUse() - heapBefore));
        line.add("texts", static_cast<double>(textsOf(*services_.front())));
        line.add("threads", static_cast<double>(threads())).add("threadsBefore", threadsBefore);
        line.add("check", step(Method::Head, [this] { waitForChecks(); }));
        line.add("recovery", step(Method::Put, [this] { loseAll(); }));
        line.add("withdrawal", step(Method::Delete, [this] { load_.withdrawAll(); }));
        require(server_.heads() == heads_, "the machine is too busy");
        line.print();
    }

  private:
    /// As a multiple of libcurl's cost, which is measured before and after. Checks that come when
    /// none is expected would be counted in the wrong step.
    double step(Method method, const std::function<void()>& work) {
        const double before = yardstick(method);
        require(server_.heads() == heads_, "the machine is too busy");
        const double cost = cpuPer(count_, [&work] {
            work();
            settleHeap();
        });
        const double after = yardstick(method);
        return cost / ((before + after) / 2);
    }
    double yardstick(Method method) {
        heads_ += method == Method::Head ? sample_.size() : 0;
        return yardsticks_.curl(method);
    }

    /// The handles, which the caller keeps for the withdrawal, do not count as the library's.
    double bytesOfOne(std::size_t all) const {
        return static_cast<double>(all - load_.heapOfHandles()) / static_cast<double>(count_);
    }

    void waitForChecks() {
        heads_ += count_;
        server_.waitForHeads(heads_);
    }

    /// Every check finds the loss, every service is registered again, and the listener is notified
    /// of both.
    void loseAll() {
        heads_ += count_;
        isLosing_ = true;
        server_.lose();
        recovered_.wait();
        server_.find();
        isLosing_ = false;
        require(server_.heads() == heads_, "the machine is too busy");
        require(lost_ == count_, "the listener has missed something");
    }

    /// Losses begin long after the last service was registered for the first time.
    void notify(bool isRegistered) {
        if (!isRegistered) {
            lost_ += isLosing_ ? 1 : 0;
        } else if (lost_ > 0) {
            recovered_.count();
        }
    }

    const std::size_t count_;
    std::vector<std::shared_ptr<common::ServiceCreate>> services_;
    const Requests sample_{1000};
    std::atomic<bool> isLosing_{false};
    std::atomic<std::size_t> lost_{0};
    Countdown recovered_;
    ServerProcess server_;
    const Yardsticks yardsticks_{server_.address(), kConnections, sample_};
    std::uint64_t heads_ = server_.heads();
    RunningContext context_;
    ClientLoad load_{context_.client(), server_.port()};
};

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    useFirstProcessor();
    ServicesBenchmark(argument(argc, argv, 1, 1000)).run();
}
