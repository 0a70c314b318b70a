// The queues and the handles of one endpoint. All its requests have the same total time-out, so
// that each queue is in the order of deadlines, too. Entered by the I/O thread only; there is no
// lock.

#include "HttpEndpoint.h"

#include "CurlErrors.h"

#include <algorithm>
#include <exception>

namespace orvx::communication {

void HttpEndpoint::add(std::unique_ptr<Request> request) {
    request->number = ++added_;
    const bool isHead = request->kind == Request::Kind::Head;
    (isHead ? waitingHeads_ : waitingOthers_).push(std::move(request));
}

std::unique_ptr<Request> HttpEndpoint::takeOldestHead() {
    Transfer* oldest = nullptr;
    for (const auto& transfer : transfers_) {
        const Request* const request = transfer->request();
        if (request != nullptr && request->kind == Request::Kind::Head &&
            (oldest == nullptr || request->number < oldest->request()->number)) {
            oldest = transfer.get();
        }
    }
    if (oldest == nullptr) {
        return waitingHeads_.pop();
    }
    free(*oldest);
    return oldest->giveUp();
}

std::unique_ptr<Request> HttpEndpoint::finish(Transfer& transfer, CURLcode code) {
    auto request = transfer.finish(code);
    if (request) {
        free(transfer);
    }
    return request;
}

// libcurl counts in milliseconds: with less than one left there is nothing to begin.
void HttpEndpoint::expire(Clock::time_point now, RequestQueue& done) {
    const auto end = now + std::chrono::milliseconds(1);
    for (RequestQueue* const queue : {&waitingHeads_, &waitingOthers_}) {
        while (!queue->isEmpty() && queue->front().deadline < end) {
            auto request = queue->pop();
            request->status = CommunicationStatus::TimedOut;
            done.push(std::move(request));
        }
    }
}

bool HttpEndpoint::startWaiting(Clock::time_point now, RequestQueue& done) {
    bool hasStarted = false;
    while (hasFreeHandle()) {
        auto request = nextWaiting();
        if (!request) {
            break;
        }
        try {
            start(request, now);
            hasStarted = true;
            continue;
        } catch (const CurlFailure& failure) {
            request->status = statusOf(failure.code);
        } catch (const std::exception&) {
            request->status = CommunicationStatus::OutOfMemory;
        }
        done.push(std::move(request));
    }
    return hasStarted;
}

Clock::time_point HttpEndpoint::nextDeadline() const {
    auto first = Clock::time_point::max();
    for (const RequestQueue* const queue : {&waitingHeads_, &waitingOthers_}) {
        if (!queue->isEmpty()) {
            first = std::min(first, queue->front().deadline);
        }
    }
    return first;
}

bool HttpEndpoint::isSpent() const {
    return isRetired_ && waitingHeads_.isEmpty() && waitingOthers_.isEmpty() &&
           free_.size() == transfers_.size();
}

bool HttpEndpoint::hasFreeHandle() const {
    return !free_.empty() || transfers_.size() < settings_->config.connectionsPerEndpoint;
}

std::unique_ptr<Request> HttpEndpoint::nextWaiting() {
    auto head = waitingHeads_.pop();
    return head ? std::move(head) : waitingOthers_.pop();
}

void HttpEndpoint::start(std::unique_ptr<Request>& request, Clock::time_point now) {
    if (free_.empty()) {
        transfers_.reserve(transfers_.size() + 1);
        // Room for all of them, so that none is lost for lack of memory when it becomes free.
        free_.reserve(transfers_.size() + 1);
        transfers_.push_back(std::make_unique<Transfer>(context_));
        free(*transfers_.back());
    }
    auto headers = headerLists_.get(settings_->config, request->contentType, request->accept);
    free_.back()->start(request, std::move(headers), now);
    free_.pop_back();
}

}  // namespace orvx::communication
