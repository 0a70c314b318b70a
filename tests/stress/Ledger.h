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

/// Whether a client was stopped: set when its deinit() has returned.
using StopMark = std::shared_ptr<std::atomic<bool>>;

/// One operation of a user. Its times are valid when it was answered.
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

/// A withdrawal of all services. Each registration must be answered at most once. The number of
/// answers is between the numbers of registrations before and after the call.
struct WithdrawalOfAll {
    explicit WithdrawalOfAll(StopMark mark) : client(std::move(mark)) {}

    const StopMark client;
    std::size_t before = 0;
    std::size_t after = 0;
    utility::Mutex mutex;
    std::set<const void*> answered ORVX_GUARDED_BY(mutex);
};

/// The operations of users and their outcomes. Thread-safe. Must outlive the clients.
class Ledger {
  public:
    struct Counts {
        std::size_t operations = 0;
        std::size_t answered = 0;
        std::size_t ok = 0;
        std::size_t unanswered = 0;  ///< Only of clients that are not stopped.
        std::size_t outstandingAtStop = 0;
        std::size_t withdrawalsOfAll = 0;
        /// The number of withdrawals of all with too many answers or, if the client is not stopped,
        /// too few.
        std::size_t wrongWithdrawalsOfAll = 0;
    };

    /// While an object lives, callbacks may also run on this thread, if it is `allowed`.
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
    /// The numbers of wrong callbacks: on another thread, a second time, after the stop.
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
