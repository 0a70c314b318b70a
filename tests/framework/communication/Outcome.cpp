// Waits for the call and the destruction of a handler. Entered by the test's thread and, through
// the handler, by the thread that calls or destroys it. `mutex` guards the state and is a leaf
// lock.

#include "Outcome.h"

#include <gtest/gtest.h>
#include <pthread.h>

namespace orvx::testing {

using communication::CommunicationStatus;
using communication::HttpResponse;
using utility::MutexLock;

/// The state that the copies of one handler share.
struct Outcome::Token {
    explicit Token(std::shared_ptr<State> outcome) : state(std::move(outcome)) {}
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;
    ~Token() {
        MutexLock lock(state->mutex);
        state->isDestroyed = true;
        state->changed.notify_all();
    }
    const std::shared_ptr<State> state;
};

communication::ResponseHandler Outcome::handler(std::function<void()> before) {
    return [token = std::make_shared<Token>(state_), before = std::move(before)](HttpResponse got) {
        if (before) {
            before();
        }
        State& state = *token->state;
        MutexLock lock(state.mutex);
        state.response = std::move(got);
        state.thread = threadName();
        ++state.calls;
        state.changed.notify_all();
    };
}

HttpResponse Outcome::response() const {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    MutexLock lock(state_->mutex);
    while (!state_->response) {
        if (state_->changed.wait_until(lock.native(), deadline) == std::cv_status::timeout) {
            ADD_FAILURE() << "The handler is not called.";
            return HttpResponse(CommunicationStatus::Other);
        }
    }
    return *state_->response;
}

CommunicationStatus Outcome::status() const {
    return response().getCommunicationStatus();
}

int Outcome::statusCode() const {
    return static_cast<int>(response().getStatusCode());
}

bool Outcome::waitUntilDestroyed(std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    MutexLock lock(state_->mutex);
    while (!state_->isDestroyed &&
           state_->changed.wait_until(lock.native(), deadline) == std::cv_status::no_timeout) {
    }
    return state_->isDestroyed;
}

int Outcome::calls() const {
    MutexLock lock(state_->mutex);
    return state_->calls;
}

bool Outcome::isDestroyed() const {
    MutexLock lock(state_->mutex);
    return state_->isDestroyed;
}

std::string Outcome::callingThread() const {
    MutexLock lock(state_->mutex);
    return state_->thread;
}

std::string threadName() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

}  // namespace orvx::testing
