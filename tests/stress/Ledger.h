#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClient.h>

#include <orvx/utility/Mutex.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace orvx::stress {

using serviceregistryclient::IOrvServiceRegistryClient;
using serviceregistryclient::OrvRegistrationResponse;

/// Whether a client has been stopped: set when its deinit() has returned.
using StopMark = std::shared_ptr<std::atomic<bool>>;

/// One operation of a user's. Times are valid as soon as it is answered.
struct Operation {
    using Time = std::chrono::steady_clock::time_point;

    explicit Operation(StopMark mark) : client(std::move(mark)) {}

    bool isAnswered() const { return answers > 0; }
    bool isOk() const { return isAnswered() && status == OrvRegistrationResponse::OK; }
    bool isRefused() const { return isAnswered() && status != OrvRegistrationResponse::OK; }

    const StopMark client;
    const Time begin = std::chrono::steady_clock::now();
    std::atomic<int> answers{0};
    std::atomic<int> status{-1};
    std::atomic<int> reason{-1};
    std::atomic<Time> end{Time()};
};

/// A withdrawal of all. At most as many registrations as there were before the call, and at least
/// as many as there were after it, have to be answered, each once.
struct WithdrawalOfAll {
    explicit WithdrawalOfAll(StopMark mark) : client(std::move(mark)) {}

    const StopMark client;
    std::size_t before = 0;
    std::size_t after = 0;
    utility::Mutex mutex;
    std::set<const void*> answered ORVX_GUARDED_BY(mutex);
};

/// What users asked and what they were told. Thread-safe. Must outlive the clients.
class Ledger {
  public:
    struct Counts {
        std::size_t operations = 0;
        std::size_t answered = 0;
        std::size_t ok = 0;
        std::size_t unanswered = 0;  ///< Of clients that are not stopped.
        std::size_t outstandingAtStop = 0;
        std::size_t withdrawalsOfAll = 0;
        /// Of which too many were told, or, if the client is not stopped, too few.
        std::size_t wrongWithdrawalsOfAll = 0;
    };

    /// While it lives, callbacks may run on this thread too, if it is `allowed`.
    class Caller {
      public:
        explicit Caller(bool allowed);
        ~Caller();
        Caller(const Caller&) = delete;
        Caller& operator=(const Caller&) = delete;
    };

    std::shared_ptr<Operation> begin(const StopMark& client) ORVX_EXCLUDES(mutex_);
    IOrvServiceRegistryClient::ResponseCallback answer(const std::shared_ptr<Operation>& operation);
    std::shared_ptr<WithdrawalOfAll> beginWithdrawalOfAll(const StopMark& client)
        ORVX_EXCLUDES(mutex_);
    IOrvServiceRegistryClient::ServiceCallback answer(const std::shared_ptr<WithdrawalOfAll>& all);
    IOrvServiceRegistryClient::StatusListener listener(const StopMark& client);

    Counts counts() const ORVX_EXCLUDES(mutex_);
    std::size_t notifications() const { return notifications_; }
    /// Callbacks that should not have been: on another thread, a second time, after the stop.
    std::size_t onWrongThread() const { return onWrongThread_; }
    std::size_t twice() const { return twice_; }
    std::size_t afterStop() const { return afterStop_; }

  private:
    void noteCall(const StopMark& client);

    mutable utility::Mutex mutex_;
    std::vector<std::shared_ptr<Operation>> operations_ ORVX_GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<WithdrawalOfAll>> withdrawalsOfAll_ ORVX_GUARDED_BY(mutex_);
    std::atomic<std::size_t> notifications_{0};
    std::atomic<std::size_t> onWrongThread_{0};
    std::atomic<std::size_t> twice_{0};
    std::atomic<std::size_t> afterStop_{0};
};

}  // namespace orvx::stress
