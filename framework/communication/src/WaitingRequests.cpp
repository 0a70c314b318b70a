// The queues of an endpoint. The session requires one time-out for all HEADs, and all other
// requests have the same time-out, so each queue is ordered by deadline, except the repetitions, of
// which there is at most one for each connection.
// Entered by the I/O thread only; there is no lock.

#include "WaitingRequests.h"

#include <algorithm>
#include <utility>

namespace orvx::communication {

void WaitingRequests::add(std::unique_ptr<Request> request) {
    const bool isHead = request->kind == Request::Kind::Head;
    (isHead ? heads_ : others_).push(std::move(request));
}

std::unique_ptr<Request> WaitingRequests::takeNext(bool isNew) {
    for (RequestQueue* const queue : {&repeats_, &heads_, &others_}) {
        if (!queue->isEmpty() && (queue != &repeats_ || isNew)) {
            return queue->pop();
        }
    }
    return nullptr;
}

std::unique_ptr<Request> WaitingRequests::takeOldestHeadOfRepeats() {
    std::unique_ptr<Request> oldest;
    for (std::size_t left = repeats_.size(); left > 0; --left) {
        auto request = repeats_.pop();
        if (request->kind == Request::Kind::Head && (!oldest || request->number < oldest->number)) {
            std::swap(request, oldest);
        }
        if (request) {
            repeats_.push(std::move(request));
        }
    }
    return oldest;
}

std::unique_ptr<Request> WaitingRequests::takeUpTo(std::uint64_t last, bool mayBeAny) {
    for (RequestQueue* const queue : {&repeats_, &heads_, &others_}) {
        if (!queue->isEmpty() && queue->front().number <= last &&
            (mayBeAny || queue == &repeats_)) {
            return queue->pop();
        }
    }
    return nullptr;
}

RequestQueue WaitingRequests::takeExpired(Clock::time_point now) {
    RequestQueue expired;
    for (RequestQueue* const queue : {&heads_, &others_}) {
        while (!queue->isEmpty() && queue->front().deadline <= now) {
            expired.push(queue->pop());
        }
    }
    for (std::size_t left = repeats_.size(); left > 0; --left) {
        auto request = repeats_.pop();
        (request->deadline <= now ? expired : repeats_).push(std::move(request));
    }
    return expired;
}

Clock::time_point WaitingRequests::nextDeadline() {
    auto next = Clock::time_point::max();
    for (const RequestQueue* const queue : {&heads_, &others_}) {
        next = queue->isEmpty() ? next : std::min(next, queue->front().deadline);
    }
    for (std::size_t left = repeats_.size(); left > 0; --left) {
        auto request = repeats_.pop();
        next = std::min(next, request->deadline);
        repeats_.push(std::move(request));
    }
    return next;
}

}  // namespace orvx::communication
