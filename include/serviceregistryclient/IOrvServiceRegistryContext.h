#pragma once

#include <orvx/communication/HttpResponse.h>
#include <orvx/utility/Export.h>

#include <chrono>
#include <cstdint>
#include <set>

namespace orvx::serviceregistryclient {

class IOrvServiceRegistryClient;

/// The options of a registry client, and its initialisation and end.
///
/// Options are set before init(). After it every setter throws utility::OrvFoundationException with
/// a message of its own and error code 0, and changes nothing. After deinit() options may be set
/// again. Getters may be called at any time.
///
/// Thread-safety: none; a context is configured, initialised and de-initialised by one thread at a
/// time. The client that it returns is thread-safe. Callbacks may call getters and isInitiated()
/// also while another thread ends or destroys the context. While the context is being destroyed,
/// getLoggerFactory() and getOrvServiceRegistryClientFactory() return null.
/// The order of the virtual operations is part of the binary interface.
class ORVX_EXPORT IOrvServiceRegistryContext {
  public:
    /// Calls deinit().
    virtual ~IOrvServiceRegistryContext();

    /// Makes the client and starts its threads. Throws utility::OrvFoundationException if the
    /// context is initialised already, if the HTTP configuration cannot work (the message names a
    /// TLS file that cannot be read), or if there are no file descriptors left; std::system_error
    /// if a thread cannot be made; std::bad_alloc; and the exceptions of the user's logger factory
    /// and client factory. After an exception the context is not initialised, nothing is running,
    /// and init() may be called again. If the callback thread cannot be made, the process ends.
    virtual void init() = 0;

    /// Ends the client. Outstanding requests are given up, queued callbacks and timers are dropped,
    /// and nothing is withdrawn at the registry; OrvServiceRegistryContext::setWithdrawAtDeinit()
    /// and enableResilience() change this. When deinit() returns, no callback runs any more; it
    /// takes at most a second longer than a callback that is running. From inside a callback it
    /// does not wait for that callback. A second call, during or after that one, returns at once,
    /// also while the callback runs; only the destructor waits until the callback has left
    /// deinit(). Does nothing before init(). In a forked child it does nothing and leaks the
    /// client.
    virtual void deinit() = 0;

    /// Whether there is a client: after init(), before deinit().
    virtual bool isInitiated() = 0;

    /// The client, owned by the context and valid until deinit(). Throws
    /// utility::OrvFoundationException before init().
    virtual IOrvServiceRegistryClient* getServiceRegistryClient() = 0;

    /// Whether a registration is retried if it got no answer. Default: true.
    virtual void enableRetry(bool enable) = 0;
    /// The value set by enableRetry().
    virtual bool isRetryEnabled() const = 0;

    /// Whether a registration is also retried if it was answered with one of the status codes of
    /// setHttpStatusCodesForRetry(). Default: false.
    virtual void enableRetryOnHttpStatus(bool enable) = 0;
    /// The value set by enableRetryOnHttpStatus().
    virtual bool isRetryOnHttpStatusEnabled() const = 0;

    /// Sets the status codes that are retried. The set is copied; it may be empty. Default: 500,
    /// 503 and 504.
    virtual void setHttpStatusCodesForRetry(
        const std::set<communication::HttpResponse::StatusCode>& statusCodes) = 0;
    /// The value set by setHttpStatusCodesForRetry(); valid until that is called again or the
    /// context is destroyed.
    virtual const std::set<communication::HttpResponse::StatusCode>& getHttpStatusCodesForRetry()
        const = 0;

    /// Whether the entry of each registered service is checked periodically, and registered again
    /// if the registry has lost it. Default: true.
    virtual void enableCheck(bool enable) = 0;
    /// The value set by enableCheck().
    virtual bool isCheckEnabled() const = 0;

    /// The time from an answer to the next check, and the delay between attempts to register a lost
    /// service again. Keep it longer than the head time-out;
    /// OrvServiceRegistryContext::setHeadTimeout() explains why. Zero and less mean at once;
    /// with resilience, 1 ms. Default: 10 s.
    virtual void setCheckInterval(std::chrono::seconds interval) = 0;
    /// The value set by setCheckInterval().
    virtual std::chrono::seconds getCheckInterval() const = 0;

    /// The delay before each retry if the number of retries is limited; otherwise the first step of
    /// the back-off, which doubles up to four times. Zero and less mean at once; with unlimited
    /// retries, no delay is shorter than 10 ms. Default: 500 ms.
    virtual void setRetryInterval(std::chrono::milliseconds interval) = 0;
    /// The value set by setRetryInterval().
    virtual std::chrono::milliseconds getRetryInterval() const = 0;

    /// The maximum number of retries of a registration; 0 means unlimited. Default: 0.
    virtual void setInitialMaxRetryCount(std::uint16_t count) = 0;
    /// The value set by setInitialMaxRetryCount().
    virtual std::uint16_t maxRetryCount() const = 0;
};

}  // namespace orvx::serviceregistryclient
