#pragma once

#include <orvx/communication/HttpResponse.h>
#include <orvx/utility/Export.h>

#include <chrono>
#include <cstdint>
#include <set>

namespace orvx::serviceregistryclient {

class IOrvServiceRegistryClient;

/// The options of a registry client, and its beginning and end.
///
/// Options are set before init(); after it every setter throws utility::OrvFoundationException with
/// a message of its own and error code 0, and changes nothing; after deinit() they may be set
/// again. Getters answer at any time.
///
/// Thread-safety: none; configured, initialised and de-initialised by one thread at a time. The
/// client that it hands out is thread-safe.
/// The order of the virtual operations is part of the binary interface.
class ORVX_EXPORT IOrvServiceRegistryContext {
  public:
    /// Ends the client, if there is one, as deinit() does.
    virtual ~IOrvServiceRegistryContext();

    /// Makes the client and starts its threads. Throws utility::OrvFoundationException when the
    /// context is initialised already, when the HTTP configuration cannot work (a file of TLS that
    /// cannot be read is named), and when there are no file descriptors left; std::system_error
    /// when a thread cannot be made; std::bad_alloc; and what a logger factory or a client factory
    /// of the user's throws. After an exception the context is not initialised, nothing is left
    /// running, and init() may be called again. A callback thread that cannot be made ends the
    /// process.
    virtual void init() = 0;

    /// Ends the client: outstanding requests are given up, queued callbacks and timers are dropped,
    /// nothing is withdrawn at the registry (OrvServiceRegistryContext::setWithdrawAtDeinit() and
    /// enableResilience() change this). When it returns no callback runs any more; it takes at
    /// most a second beside the callback that is running. From inside a callback it does not wait
    /// for that callback. Does nothing before init(), and in a forked child, which leaks the
    /// client.
    virtual void deinit() = 0;

    /// Whether there is a client: after init(), before deinit().
    virtual bool isInitiated() = 0;

    /// The client, owned by the context and valid until deinit().
    /// Throws utility::OrvFoundationException before init().
    virtual IOrvServiceRegistryClient* getServiceRegistryClient() = 0;

    /// Whether a registration that got no answer is tried again. Default: true.
    virtual void enableRetry(bool enable) = 0;
    /// What enableRetry() set.
    virtual bool isRetryEnabled() const = 0;

    /// Whether a registration that is answered with one of the status codes below is tried again,
    /// too. Default: false.
    virtual void enableRetryOnHttpStatus(bool enable) = 0;
    /// What enableRetryOnHttpStatus() set.
    virtual bool isRetryOnHttpStatusEnabled() const = 0;

    /// Default: 500, 503 and 504. The set is copied; an empty one is allowed.
    virtual void setHttpStatusCodesForRetry(
        const std::set<communication::HttpResponse::StatusCode>& statusCodes) = 0;
    /// What setHttpStatusCodesForRetry() set; valid until it is called again or the context
    /// ends.
    virtual const std::set<communication::HttpResponse::StatusCode>& getHttpStatusCodesForRetry()
        const = 0;

    /// Whether the entry of each registered service is checked periodically and made again when the
    /// registry has lost it. Default: true.
    virtual void enableCheck(bool enable) = 0;
    /// What enableCheck() set.
    virtual bool isCheckEnabled() const = 0;

    /// From an answer to the next check; also the delay between attempts to register a lost service
    /// again. Keep it above the head time-out (OrvServiceRegistryContext::setHeadTimeout() says
    /// why). Zero and less mean at once. Default: 10 s.
    virtual void setCheckInterval(std::chrono::seconds interval) = 0;
    /// What setCheckInterval() set.
    virtual std::chrono::seconds getCheckInterval() const = 0;

    /// The delay before each retry where retries are limited, and the step of the back-off (doubled
    /// up to four times) where they are not. Zero and less mean at once; where retries are not
    /// limited, no delay is below 10 ms. Default: 500 ms.
    virtual void setRetryInterval(std::chrono::milliseconds interval) = 0;
    /// What setRetryInterval() set.
    virtual std::chrono::milliseconds getRetryInterval() const = 0;

    /// How often a registration is tried again; 0 means without limit. Default: 0.
    virtual void setInitialMaxRetryCount(std::uint16_t count) = 0;
    /// What setInitialMaxRetryCount() set.
    virtual std::uint16_t maxRetryCount() const = 0;
};

}  // namespace orvx::serviceregistryclient
