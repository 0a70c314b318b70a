// Bursts of registrations and withdrawals.
// Entered by the main thread; callbacks run on the client's callback thread and only count.

#include "ClientLoad.h"

#include "Measure.h"
#include "Process.h"
#include "RunningContext.h"

#include <atomic>
#include <utility>

namespace orvx::benchmarks {

using serviceregistryclient::OrvRegistrationResponse;

namespace {

/// Counts outcomes. Outlives its callbacks: it is waited for.
class Outcomes {
  public:
    explicit Outcomes(std::size_t count) : count_(count), left_(count) {}

    auto callback() {
        return [this](const OrvRegistrationResponse& outcome) {
            good_ += outcome.status == OrvRegistrationResponse::OK ? 1U : 0U;
            left_.count();
        };
    }
    void wait() {
        left_.wait();
        require(good_ == count_, "not every outcome was OK");
    }

  private:
    const std::size_t count_;
    std::atomic<std::size_t> good_{0};
    Countdown left_;
};

}  // namespace

void ClientLoad::registerAll(const std::vector<std::shared_ptr<common::ServiceCreate>>& services) {
    Outcomes outcomes(services.size());
    const common::ServiceInfo registry = registryAt(port_);
    handles_.reserve(services.size());
    for (const auto& service : services) {
        handles_.push_back(
            client_.registerServiceAtRegistry(registry, service, outcomes.callback()));
    }
    outcomes.wait();
}

void ClientLoad::withdrawAll() {
    Outcomes outcomes(handles_.size());
    for (const auto& withdraw : std::exchange(handles_, {})) {
        withdraw(outcomes.callback());
    }
    outcomes.wait();
}

std::size_t ClientLoad::heapOfHandles() const {
    const std::size_t before = heapInUse();
    const auto copies = handles_;
    return heapInUse() - before;
}

}  // namespace orvx::benchmarks
