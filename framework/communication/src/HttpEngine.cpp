// The I/O thread: waits for events, drives the endpoints, and calls the handlers without holding a
// lock.
// start() is entered by the thread that initialises, stop() by the one that ends the context, which
// may be the I/O thread; everything else runs on the I/O thread. There is no lock here: other
// threads communicate through the inbox and the resolver. The loop never throws: an allocation
// failure fails the request that needed the memory.

#include "HttpEngine.h"

#include <orvx/utility/OrvFoundationException.h>

#include <sys/eventfd.h>
#include <unistd.h>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/detail/concurrency_hint.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <new>
#include <thread>
#include <utility>

namespace orvx::communication {

namespace asio = boost::asio;

namespace {

void count(const Request& request, Clock::time_point now) noexcept {
    const bool isAnswered = request.status == CommunicationStatus::Ok;
    const std::uint64_t repeated = request.attempts > 1 ? request.attempts - 1 : 0;
    request.settings->statistics->record({methodOf(request.kind), request.status,
                                          isAnswered ? request.answer.statusCode : 0,
                                          now - request.submitted, repeated});
    request.settings->healthCheck->record(request.status);
}

HttpResponse responseTo(Request& request) {
    if (request.status != CommunicationStatus::Ok) {
        return {request.status, std::move(request.answer.body)};
    }
    return {static_cast<HttpResponse::StatusCode>(request.answer.statusCode),
            std::move(request.answer.headerLines), std::move(request.answer.body)};
}

using Event = asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;

/// Gives `event` a new event descriptor, and returns it. Throws std::bad_alloc, or
/// boost::system::system_error if there is no descriptor left.
int openEvent(Event& event) {
    const int descriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (descriptor < 0) {
        throw boost::system::system_error(errno, boost::system::system_category(), "eventfd");
    }
    try {
        event.assign(descriptor);
    } catch (...) {
        ::close(descriptor);
        throw;
    }
    return descriptor;
}

}  // namespace

/// The event loop. Only the I/O thread uses it, except for the wake-up.
struct HttpEngine::Loop {
    // The hint is safe because only the I/O thread uses the io_context.
    Loop(RequestQueue& done, const utility::StreamingLogger& logger)
        : io(BOOST_ASIO_CONCURRENCY_HINT_UNSAFE),
          event(io),
          timer(io),
          wakeUp(openEvent(event)),
          resolver(wakeUp),
          context{io, resolver, logger, done} {
        listen();
    }

    /// Waits for the next wake-up.
    void listen() {
        event.async_read_some(asio::buffer(count),
                              [this](const boost::system::error_code& error, std::size_t) {
                                  if (!error) {
                                      listen();
                                  }
                              });
    }
    /// Handles one event; returns false if there was none.
    bool poll() {
        return isDone([this] { return io.poll_one(); });
    }
    /// Waits for one event, at most until `until`.
    void wait(Clock::time_point until) {
        isDone([this, until] {
            setAlarm(until);
            return io.run_one();
        });
    }
    /// Sets the timer unless it fires earlier anyway, so that a request costs no system call for
    /// it. Asio's run_one_until() would wake up each second.
    void setAlarm(Clock::time_point until) {
        if (until >= alarm) {
            return;
        }
        alarm = Clock::time_point::max();
        timer.expires_at(until);
        timer.async_wait([this](const boost::system::error_code& error) {
            if (!error) {
                alarm = Clock::time_point::max();
            }
        });
        alarm = until;
    }
    /// Runs a step and returns whether it handled an event. A handler that throws has only failed
    /// to start its own operation again.
    template <typename Step>
    bool isDone(const Step& step) {
        try {
            return step() != 0;
        } catch (const std::exception&) {
            return true;
        }
    }

    asio::io_context io;
    Event event;  // Owns the descriptor of wakeUp.
    asio::basic_waitable_timer<Clock, asio::wait_traits<Clock>, asio::io_context::executor_type>
        timer;
    Clock::time_point alarm = Clock::time_point::max();  // When the timer fires.
    WakeUp wakeUp;
    Resolver resolver;
    EndpointContext context;
    std::array<std::uint64_t, 1> count{};
};

HttpEngine::HttpEngine(std::shared_ptr<RequestInbox> inbox, utility::StreamingLogger logger)
    : inbox_(std::move(inbox)), logger_(std::move(logger)) {
    try {
        loop_ = std::make_unique<Loop>(done_, logger_);
    } catch (const boost::system::system_error& error) {
        throw utility::OrvFoundationException(
            (std::string("HTTP cannot be set up: ") + error.what()).c_str(), 0);
    }
}

HttpEngine::~HttpEngine() = default;

bool HttpEngine::isRunning() const {
    return inbox_->isOpenFor(&loop_->wakeUp);
}

void HttpEngine::start() {
    inbox_->open(&loop_->wakeUp);
    try {
        thread_.start("ORVX_HttpIO", [self = shared_from_this()] { self->run(); });
    } catch (...) {
        inbox_->close(&loop_->wakeUp);
        throw;
    }
}

void HttpEngine::stop() {
    if (thread_.isInForkedChild()) {
        return;
    }
    inbox_->close(&loop_->wakeUp).clear();
    if (!thread_.isCurrent()) {
        thread_.end();
        hasEnded_ = true;
    }
}

void HttpEngine::run() {
    bool hasYielded = false;
    while (isRunning()) {
        bool hasWorked = loop_->poll();
        takeSubmitted();
        takeLookUps();
        const auto now = Clock::now();
        processEndpoints(now);
        hasWorked = callHandlers(now) || hasWorked;
        if (hasWorked) {
            hasYielded = false;
        } else if (!std::exchange(hasYielded, true)) {
            // Other threads run first: requests that they submit before this thread sleeps cost no
            // wake-up.
            std::this_thread::yield();
        } else if (inbox_->prepareToWait(&loop_->wakeUp)) {
            loop_->wait(nextTime_);
            hasYielded = false;
        }
    }
    cleanUp();
}

void HttpEngine::takeSubmitted() {
    auto submitted = inbox_->take(&loop_->wakeUp);
    while (auto request = submitted.pop()) {
        handleSubmitted(std::move(request));
    }
}

void HttpEngine::handleSubmitted(std::unique_ptr<Request> request) {
    const bool isRequest =
        request->kind != Request::Kind::Abandon && request->kind != Request::Kind::Retire;
    if (isRequest) {
        addRequest(std::move(request));
        return;
    }
    const auto found = endpoints_.find(request->settings.get());
    if (found == endpoints_.end()) {
        return;
    }
    if (request->kind == Request::Kind::Retire) {
        found->second.retire();
    } else if (auto head = found->second.takeOldestHead()) {
        head->status = CommunicationStatus::Abandoned;
        done_.push(std::move(head));
    }
}

void HttpEngine::addRequest(std::unique_ptr<Request> request) {
    if (request->status == CommunicationStatus::Ok) {
        try {
            const auto added =
                endpoints_.try_emplace(request->settings.get(), loop_->context, request->settings);
            added.first->second.add(std::move(request));
            return;
        } catch (const std::bad_alloc&) {
            request->status = CommunicationStatus::OutOfMemory;
        }
    }
    done_.push(std::move(request));
}

void HttpEngine::takeLookUps() {
    for (const auto& lookUp : loop_->resolver.take()) {
        for (auto& [settings, endpoint] : endpoints_) {
            endpoint.onResolved(lookUp);
        }
    }
}

void HttpEngine::processEndpoints(Clock::time_point now) {
    nextTime_ = Clock::time_point::max();
    for (auto it = endpoints_.begin(); it != endpoints_.end();) {
        HttpEndpoint& endpoint = it->second;
        endpoint.process(now);
        nextTime_ = std::min(nextTime_, endpoint.nextTime());
        it = endpoint.isFinished() ? endpoints_.erase(it) : std::next(it);
    }
}

/// Returns whether there was any request to complete.
bool HttpEngine::callHandlers(Clock::time_point now) {
    const bool hasAny = !done_.isEmpty();
    while (const auto request = done_.pop()) {
        if (isRunning()) {
            count(*request, now);
            callHandler(*request);
        }
    }
    return hasAny;
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

// Runs the cancelled operations, so that they release their objects.
void HttpEngine::cleanUp() {
    endpoints_.clear();
    done_.clear();
    loop_->resolver.close();
    while (loop_->poll()) {
    }
}

}  // namespace orvx::communication
