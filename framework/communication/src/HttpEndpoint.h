#pragma once

#include "HeaderLists.h"
#include "Request.h"
#include "Transfer.h"

#include <memory>
#include <vector>

namespace orvx::communication {

/// The requests of one session within one engine: those that wait, and those that have one of a
/// bounded number of handles. Waiting costs libcurl nothing: it does not know of them.
///
/// For the I/O thread only. Nothing throws where it does not say so.
class HttpEndpoint {
  public:
    /// The context must outlive it.
    HttpEndpoint(TransferContext& context, std::shared_ptr<const EndpointSettings> settings)
        : context_(context), settings_(std::move(settings)) {}

    void add(std::unique_ptr<Request> request);
    /// The HEAD that is outstanding longest, waiting or under way; null when there is none.
    std::unique_ptr<Request> takeOldestHead();
    /// As Transfer::finish(); its handle may be used again.
    std::unique_ptr<Request> finish(Transfer& transfer, CURLcode code);

    /// Moves the requests that have waited too long to `done`.
    void expire(Clock::time_point now, RequestQueue& done);
    /// Begins as many as there are handles for; those that cannot begin go to `done`. Returns
    /// whether one has begun.
    bool startWaiting(Clock::time_point now, RequestQueue& done);
    /// The first deadline of those that wait; the end of time when none does.
    Clock::time_point nextDeadline() const;

    /// Nothing will be added any more.
    void retire() { isRetired_ = true; }
    /// Whether it can go.
    bool isSpent() const;

  private:
    bool hasFreeHandle() const;
    std::unique_ptr<Request> nextWaiting();
    void start(std::unique_ptr<Request>& request, Clock::time_point now);
    void free(Transfer& transfer) { free_.push_back(&transfer); }

    TransferContext& context_;
    const std::shared_ptr<const EndpointSettings> settings_;
    HeaderLists headerLists_;
    std::uint64_t added_ = 0;
    RequestQueue waitingHeads_;
    RequestQueue waitingOthers_;
    std::vector<std::unique_ptr<Transfer>> transfers_;
    std::vector<Transfer*> free_;
    bool isRetired_ = false;
};

}  // namespace orvx::communication
