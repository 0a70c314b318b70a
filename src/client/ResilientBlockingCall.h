#pragma once

#include "ResilientUpkeep.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace orvx::serviceregistryclient {

/// One blocking call: collects the answers for its services.
/// Thread-safety: every operation may be called from any thread.
class OrvServiceRegistryClient::ResilientUpkeep::BlockingCall {
  public:
    using Service = std::shared_ptr<common::ServiceModel>;
    using Outcome = OrvRegistrationResponse;
    /// The initial response is that of a service without an answer in time.
    using Responses = std::map<Service, Outcome>;

    /// May come after end(): the client may stop while the call begins.
    void add(const Service& service) {
        const std::lock_guard lock(mutex_);
        responses_.emplace(service,
                           Outcome(Outcome::ERROR,
                                   isEnded_ ? Outcome::DELEGATOR_NOT_INITIATED : Outcome::TIMEOUT));
        ++left_;
    }
    void answer(const Service& service, Outcome response) {
        const std::lock_guard lock(mutex_);
        const auto found = responses_.find(service);
        if (left_ > 0 && found != responses_.end()) {
            found->second = std::move(response);
            --left_;
        }
        changed_.notify_all();
    }
    /// Called when the client has stopped.
    void end() {
        const std::lock_guard lock(mutex_);
        isEnded_ = true;
        for (auto& [service, response] : responses_) {
            if (response.errorCode == Outcome::TIMEOUT) {
                response.errorCode = Outcome::DELEGATOR_NOT_INITIATED;
            }
        }
        changed_.notify_all();
    }
    /// Zero means no time-out.
    Responses wait(Milliseconds timeout) {
        std::unique_lock lock(mutex_);
        const auto isDone = [this] { return left_ == 0 || isEnded_; };
        if (timeout == Milliseconds::zero()) {
            changed_.wait(lock, isDone);
        } else {
            changed_.wait_for(lock, std::min(timeout, kLongestWait), isDone);
        }
        left_ = 0;  // later answers are dropped
        return std::move(responses_);
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Responses responses_;
    std::size_t left_ = 0;
    bool isEnded_ = false;
};

}  // namespace orvx::serviceregistryclient
