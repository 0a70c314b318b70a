// The operations of the users, and callbacks that count their calls.
//
// Threads: users begin operations, and the clients' callback threads answer them. mutex_ guards the
// lists. The answers are atomic, or guarded by the lock of their withdrawal. All are leaf locks.

#include "Ledger.h"

#include <pthread.h>

namespace orvx::stress {

using utility::MutexLock;

namespace {

thread_local bool mayCall = false;

}  // namespace

Ledger::Caller::Caller(bool allowed) {
    mayCall = allowed;
}

Ledger::Caller::~Caller() {
    mayCall = false;
}

std::shared_ptr<Operation> Ledger::begin(const StopMark& client) {
    auto operation = std::make_shared<Operation>(client);
    const MutexLock lock(mutex_);
    operations_.push_back(operation);
    return operation;
}

IOrvServiceRegistryClient::ResponseCallback Ledger::answer(
    const std::shared_ptr<Operation>& operation) {
    return [this, operation](const OrvRegistrationResponse& outcome) {
        noteCall(operation->client);
        operation->end = std::chrono::steady_clock::now();
        operation->reason = outcome.errorCode;
        operation->status = outcome.status;
        twice_ += ++operation->answers > 1 ? 1 : 0;
    };
}

std::shared_ptr<WithdrawalOfAll> Ledger::beginWithdrawalOfAll(const StopMark& client) {
    auto all = std::make_shared<WithdrawalOfAll>(client);
    const MutexLock lock(mutex_);
    withdrawalsOfAll_.push_back(all);
    return all;
}

IOrvServiceRegistryClient::ServiceCallback Ledger::answer(
    const std::shared_ptr<WithdrawalOfAll>& all) {
    return [this, all](const auto& service, const OrvRegistrationResponse& /*outcome*/) {
        noteCall(all->client);
        const MutexLock lock(all->mutex);
        twice_ += all->answered.insert(service.get()).second ? 0 : 1;
    };
}

IOrvServiceRegistryClient::StatusListener Ledger::listener(const StopMark& client) {
    return [this, client](const auto& /*service*/, bool /*isRegistered*/) {
        noteCall(client);
        ++notifications_;
    };
}

Ledger::Counts Ledger::counts() const {
    Counts counts;
    const MutexLock lock(mutex_);
    counts.operations = operations_.size();
    for (const auto& operation : operations_) {
        if (operation->isAnswered()) {
            ++counts.answered;
            counts.ok += operation->isOk() ? 1 : 0;
        } else {
            ++(*operation->client ? counts.outstandingAtStop : counts.unanswered);
        }
    }
    counts.withdrawalsOfAll = withdrawalsOfAll_.size();
    for (const auto& all : withdrawalsOfAll_) {
        const MutexLock answers(all->mutex);
        const std::size_t count = all->answered.size();
        const bool isIncomplete = count < all->after && !*all->client;
        counts.wrongWithdrawalsOfAll += isIncomplete || count > all->before ? 1 : 0;
    }
    return counts;
}

void Ledger::noteCall(const StopMark& client) {
    char name[16] = {};
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    onWrongThread_ += mayCall || std::string(name) == "ORVX_SRCBExec" ? 0 : 1;
    afterStop_ += *client ? 1 : 0;
}

}  // namespace orvx::stress
