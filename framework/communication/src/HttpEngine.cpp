// The I/O thread: drives libcurl's transfers, feeds them from the endpoints' queues, and calls the
// handlers, with nothing of libcurl's and no lock around a call.
// start() and stop() are entered by the thread that initialises; all else is the I/O thread's own.
// There is no lock here: what comes from other threads comes through the inbox. The loop never
// throws: what needs memory and does not get it fails the request that needs it.

#include "HttpEngine.h"

#include <orvx/utility/OrvFoundationException.h>

#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <exception>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

namespace orvx::communication {

namespace {

// A look-up that was given up ends in a thread of libcurl's own, maybe when a plug-in that brought
// libcurl along is gone already: libcurl's code has to stay.
void keepLibcurlLoaded() {
    Dl_info where{};
    if (dladdr(reinterpret_cast<void*>(&curl_multi_init), &where) != 0) {
        dlopen(where.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

// Never undone: somebody else in this process may use libcurl, too.
void setUpLibcurl() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            throw utility::OrvFoundationException("libcurl cannot be set up.", 0);
        }
        keepLibcurlLoaded();
    });
}

ClientStatistics::Method methodOf(const Request& request) {
    using Method = ClientStatistics::Method;
    return request.kind == Request::Kind::Put    ? Method::Put
           : request.kind == Request::Kind::Head ? Method::Head
                                                 : Method::Delete;
}

void count(const Request& request, Clock::time_point now) noexcept {
    const bool isAnswered = request.status == CommunicationStatus::Ok;
    const std::uint64_t repeated = request.attempts > 1 ? request.attempts - 1 : 0;
    request.settings->statistics->record({methodOf(request), request.status,
                                          isAnswered ? request.statusCode : 0,
                                          now - request.submitted, repeated});
    switch (request.status) {
        case CommunicationStatus::Abandoned:
        case CommunicationStatus::InvalidRequest:
        case CommunicationStatus::NoSession:
            break;
        default:
            request.settings->healthCheck->record(isAnswered);
    }
}

HttpResponse responseTo(Request& request) {
    if (request.status != CommunicationStatus::Ok) {
        return HttpResponse(request.status);
    }
    return {static_cast<HttpResponse::StatusCode>(request.statusCode),
            std::move(request.headerLines), std::move(request.body)};
}

}  // namespace

HttpEngine::HttpEngine(std::shared_ptr<RequestInbox> inbox, utility::StreamingLogger logger)
    : inbox_(std::move(inbox)),
      logger_(std::move(logger)),
      multi_(makeMulti()),
      context_{multi_.get(), {}} {}

// Without a free descriptor there is a handle all the same, but one that cannot be woken.
HttpEngine::Multi HttpEngine::makeMulti() {
    setUpLibcurl();
    Multi multi(curl_multi_init());
    if (!multi || curl_multi_wakeup(multi.get()) != CURLM_OK) {
        throw utility::OrvFoundationException(
            "libcurl cannot be set up: memory or file descriptors ran out.", 0);
    }
    return multi;
}

void HttpEngine::start() {
    inbox_->open(context_.multi);
    try {
        thread_.start("ORVX_HttpIO", [self = shared_from_this()] { self->run(); });
    } catch (...) {
        inbox_->close(context_.multi);
        throw;
    }
}

void HttpEngine::stop() {
    if (thread_.isLeftBehind()) {
        return;
    }
    inbox_->close(context_.multi).clear();
    if (!thread_.isCurrent()) {
        thread_.end();
        hasEnded_ = true;
    }
}

void HttpEngine::run() {
    bool hasYielded = false;
    while (isRunning()) {
        int ignored = 0;
        curl_multi_perform(context_.multi, &ignored);
        collect();
        takeOrders();
        const auto now = Clock::now();
        const bool hasStarted = startRequests(now);
        callHandlers(now);
        if (hasStarted) {
            hasYielded = false;
        } else if (!std::exchange(hasYielded, true)) {
            // Others run first: what they leave before this thread sleeps costs them no wake-up.
            std::this_thread::yield();
        } else if (inbox_->mayWait(context_.multi)) {
            wait();
            hasYielded = false;
        }
    }
    cleanUp();
}

void HttpEngine::collect() {
    int ignored = 0;
    while (const CURLMsg* const message = curl_multi_info_read(context_.multi, &ignored)) {
        // The message ends with the handle's use.
        const CURLcode code = message->data.result;
        Transfer& transfer = Transfer::of(message->easy_handle);
        HttpEndpoint& endpoint = endpoints_.at(transfer.request()->settings.get());
        if (auto request = endpoint.finish(transfer, code)) {
            done_.push(std::move(request));
        }
    }
}

void HttpEngine::takeOrders() {
    auto orders = inbox_->take(context_.multi);
    while (auto order = orders.pop()) {
        takeOrder(std::move(order));
    }
}

void HttpEngine::takeOrder(std::unique_ptr<Request> order) {
    const bool isRequest =
        order->kind != Request::Kind::Abandon && order->kind != Request::Kind::Retire;
    if (isRequest) {
        addRequest(std::move(order));
        return;
    }
    const auto found = endpoints_.find(order->settings.get());
    if (found == endpoints_.end()) {
        return;
    }
    if (order->kind == Request::Kind::Retire) {
        found->second.retire();
    } else if (auto head = found->second.takeOldestHead()) {
        head->status = CommunicationStatus::Abandoned;
        done_.push(std::move(head));
    }
}

void HttpEngine::addRequest(std::unique_ptr<Request> request) {
    if (request->status == CommunicationStatus::Ok) {
        try {
            const auto [added, isNew] =
                endpoints_.try_emplace(request->settings.get(), context_, request->settings);
            added->second.add(std::move(request));
            if (isNew) {
                boundIdleConnections();
            }
            return;
        } catch (const std::bad_alloc&) {
            request->status = CommunicationStatus::OutOfMemory;
        }
    }
    done_.push(std::move(request));
}

bool HttpEngine::startRequests(Clock::time_point now) {
    bool hasStarted = false;
    for (auto it = endpoints_.begin(); it != endpoints_.end();) {
        HttpEndpoint& endpoint = it->second;
        endpoint.expire(now, done_);
        hasStarted = endpoint.startWaiting(now, done_) || hasStarted;
        if (endpoint.isSpent()) {
            it = endpoints_.erase(it);
            boundIdleConnections();
        } else {
            ++it;
        }
    }
    return hasStarted;
}

// Left to itself libcurl keeps as many as there are handles in use, and closes the rest after each
// burst.
void HttpEngine::boundIdleConnections() {
    constexpr std::size_t kMost = 1U << 30U;
    std::size_t sum = 1;
    for (const auto& [settings, endpoint] : endpoints_) {
        sum += std::min(settings->config.connectionsPerEndpoint, kMost - sum);
    }
    curl_multi_setopt(context_.multi, CURLMOPT_MAXCONNECTS, static_cast<long>(sum));
}

void HttpEngine::callHandlers(Clock::time_point now) {
    while (const auto request = done_.pop()) {
        if (isRunning()) {
            count(*request, now);
            callHandler(*request);
        }
    }
}

void HttpEngine::callHandler(Request& request) {
    try {
        if (request.handler) {
            request.handler(responseTo(request));
        }
    } catch (const std::exception& error) {
        logger_.logWarning(false) << "A response handler failed: " << error.what();
    } catch (...) {
        logger_.logWarning(false) << "A response handler failed: unknown exception";
    }
}

void HttpEngine::wait() {
    const auto longest = static_cast<int>(longestWait().count());
    curl_multi_poll(context_.multi, nullptr, 0, longest, nullptr);
}

std::chrono::milliseconds HttpEngine::longestWait() const {
    using std::chrono::milliseconds;
    auto first = Clock::time_point::max();
    for (const auto& [settings, endpoint] : endpoints_) {
        first = std::min(first, endpoint.nextDeadline());
    }
    if (first == Clock::time_point::max()) {
        return milliseconds(INT_MAX);
    }
    const auto left = std::chrono::ceil<milliseconds>(first - Clock::now());
    return std::clamp(left, milliseconds(0), milliseconds(INT_MAX));
}

void HttpEngine::cleanUp() {
    endpoints_.clear();
    done_.clear();
    multi_.reset();
}

}  // namespace orvx::communication
