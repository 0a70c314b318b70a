#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClient.h>
#include <serviceregistryclient/IOrvServiceRegistryClientFactory.h>
#include <serviceregistryclient/IOrvServiceRegistryContext.h>
#include <serviceregistryclient/RegistrationStatus.h>

#include <orvx/communication/HttpConfig.h>
#include <orvx/utility/ILoggerFactory.h>

#include <chrono>
#include <memory>
#include <vector>

namespace orvx::serviceregistryclient {

class ClientReference;
class OrvServiceRegistryClient;

/// The object that a process creates first: holds the options, and makes and owns the only client.
/// See IOrvServiceRegistryContext for the rules, which also apply to the operations added here.
/// The destructor of an initialised context ends its client.
class ORVX_EXPORT OrvServiceRegistryContext : public IOrvServiceRegistryContext {
  public:
    OrvServiceRegistryContext();
    ~OrvServiceRegistryContext() override;
    OrvServiceRegistryContext(const OrvServiceRegistryContext&) = delete;
    OrvServiceRegistryContext& operator=(const OrvServiceRegistryContext&) = delete;

    void init() override;
    void deinit() override;
    bool isInitiated() override;
    IOrvServiceRegistryClient* getServiceRegistryClient() override;

    void enableRetry(bool enable) override;
    bool isRetryEnabled() const override;
    void enableRetryOnHttpStatus(bool enable) override;
    bool isRetryOnHttpStatusEnabled() const override;
    void setHttpStatusCodesForRetry(
        const std::set<communication::HttpResponse::StatusCode>& statusCodes) override;
    const std::set<communication::HttpResponse::StatusCode>& getHttpStatusCodesForRetry()
        const override;
    void enableCheck(bool enable) override;
    bool isCheckEnabled() const override;
    void setCheckInterval(std::chrono::seconds interval) override;
    std::chrono::seconds getCheckInterval() const override;
    void setRetryInterval(std::chrono::milliseconds interval) override;
    std::chrono::milliseconds getRetryInterval() const override;
    void setInitialMaxRetryCount(std::uint16_t count) override;
    std::uint16_t maxRetryCount() const override;

    /// The factory of the loggers. init() sets the context's log level on it. Default:
    /// utility::TimedConsoleLoggerFactory, made by init(). The getter throws before init().
    utility::ILoggerFactory* getLoggerFactory() const;
    /// See getLoggerFactory().
    void setLoggerFactory(std::shared_ptr<utility::ILoggerFactory> loggerFactory);

    /// The factory of the client. Default: OrvServiceRegistryClientFactory, made by init(). The
    /// getter throws before init().
    std::shared_ptr<IOrvServiceRegistryClientFactory> getOrvServiceRegistryClientFactory() const;
    /// See getOrvServiceRegistryClientFactory().
    void setOrvServiceRegistryClientFactory(
        std::shared_ptr<IOrvServiceRegistryClientFactory> clientFactory);

    /// Whether the uri of a built description begins with the prefix of its ServiceInfo instead of
    /// "/". Default: false.
    bool getRegisterWithPrefix() const;
    /// See getRegisterWithPrefix().
    void setRegisterWithPrefix(bool registerWithPrefix);

    /// The time-out of synchronous registrations with resilience; zero means without limit, less
    /// than zero means that the call does not wait. Without resilience it is not used: synchronous
    /// registrations wait without limit. Default: 30 s.
    std::chrono::milliseconds getSyncCallRegistryTimeout() const;
    /// See getSyncCallRegistryTimeout().
    void setSyncCallRegistryTimeout(std::chrono::milliseconds timeout);

    /// The time-out of synchronous withdrawals; zero means without limit, less than zero means that
    /// the call does not wait. Default: 30 s.
    std::chrono::milliseconds getSyncCallUnregisterTimeout() const;
    /// See getSyncCallUnregisterTimeout().
    void setSyncCallUnregisterTimeout(std::chrono::milliseconds timeout);

    /// The level up to which lines are logged. Default: utility::Logger::DEFAULT_LOG_LEVEL.
    utility::ILogger::LogLevel getLogLevel() const;
    /// See getLogLevel().
    void setLogLevel(utility::ILogger::LogLevel level);

    /// The time that a check waits for its answer. Without resilience a check that times out is the
    /// service's last one, so set it well above the registry's response time. Also keep it shorter
    /// than the check interval: the time-out of a check continues after the answer, and if it
    /// passes while a later check waits, that check is given up and becomes the service's last one.
    /// Zero and less leave no time at all. Default: 3 s.
    std::chrono::milliseconds getHeadTimeout() const;
    /// See getHeadTimeout().
    void setHeadTimeout(std::chrono::milliseconds timeout);

    /// The configuration of HTTP: time-outs, limits, headers, credentials, proxy or Unix socket,
    /// TLS, statistics. init() refuses a configuration that cannot work. Default:
    /// communication::HttpConfig.
    const communication::HttpConfig& getHttpConfig() const;
    /// See getHttpConfig().
    void setHttpConfig(communication::HttpConfig config);

    /// Whether the client keeps its announcements valid whatever the registry does. If it is off,
    /// the client follows the rules of the other options and operations. If it is on, the following
    /// rules take precedence:
    ///
    /// Each entry is checked by itself, as long as a service is announced there. A check that is
    /// not answered within the head time-out is given up alone, and the next check is due after the
    /// interval. The first check is due within the interval. The first 404, and the first answer
    /// after a request that got none, make the checks of all other entries at that registry due
    /// soon, at a limited rate.
    ///
    /// A withdrawal may be requested at any time, and takes precedence over a registration. It is
    /// answered OK / NONE when the entry is gone (200, 204, 404 or 410), or once ERROR / TIMEOUT if
    /// the unregister time-out passes before; the client continues to try until its end. A DELETE
    /// that is refused (403, for example) reports ERROR / SERVICE_REGISTRY_ERROR, and is tried
    /// again after the check interval; any status from 500 on is no refusal of a DELETE, but is
    /// tried again after the delay of the back-off. A registration that is still waiting is first
    /// answered ERROR / OTHER.
    ///
    /// Two registrations of one path at one registry share its entry: the registry holds the latest
    /// description that is not withdrawn, and the entry is deleted with the last one.
    ///
    /// A request that is answered 408, 425, 429, 500, 502, 503 or 504, or not at all, and a
    /// registration whose success has no usable Location, is tried again after the delay of the
    /// back-off, and not before a Retry-After (at most one minute).
    /// Any other refusal of a first registration, and an invalid endpoint, are reported at once. An
    /// entry that was announced before is never given up: after such a refusal it is tried again
    /// after the check interval.
    ///
    /// enableRetry(false) and setInitialMaxRetryCount() limit a first registration: if it fails,
    /// its callback gets ERROR / SERVICE_REGISTRY_ERROR, and an entry that it may have made is
    /// deleted. With enableRetryOnHttpStatus(true) the statuses of setHttpStatusCodesForRetry() are
    /// tried again, too. Without checks a lost entry is not noticed.
    ///
    /// Blocking calls always return: a registration after the registry time-out (zero: none) with
    /// ERROR / TIMEOUT; a call from a callback or listener at once with ERROR / OTHER; a call that
    /// waits when the client is stopped with ERROR / DELEGATOR_NOT_INITIATED. Sets may have any
    /// number of services, including none.
    ///
    /// Every callback is called exactly once. Callbacks that wait when the client is stopped are
    /// called with ERROR / DELEGATOR_NOT_INITIATED before deinit() returns, on the thread that
    /// calls it, and must not destroy the context. A registration that is answered in this way has
    /// ended. A call that such a callback makes may be answered before deinit() returns or after
    /// the next start; if the context ends, it may never be answered. As without resilience,
    /// handles do nothing after the context was de-initialised.
    ///
    /// Default: false.
    void enableResilience(bool enable);
    /// The value set by enableResilience().
    bool isResilienceEnabled() const;

    /// The maximum time that deinit() and the destructor take to withdraw all services first, with
    /// or without resilience. Services that could not be withdrawn in time are logged as warnings.
    /// Meanwhile every registration is refused with ERROR / DELEGATOR_NOT_INITIATED. If a callback
    /// calls deinit() meanwhile, that call returns at once.
    /// Zero and less: nothing is withdrawn. Default: 0.
    void setWithdrawAtDeinit(std::chrono::milliseconds bound);
    /// The value set by setWithdrawAtDeinit().
    std::chrono::milliseconds getWithdrawAtDeinit() const;

    /// Sets the listener that receives the events of all registrations; see RegistrationEvent. It
    /// is called on the client's callback thread, in order with the callbacks and by their rules,
    /// with or without resilience. Default: none.
    void setRegistrationListener(RegistrationListener listener);
    /// The value set by setRegistrationListener(); valid until that is called again or the context
    /// is destroyed.
    const RegistrationListener& getRegistrationListener() const;

    /// Every registration that the client manages now, by ascending request id, with or without
    /// resilience. Empty before init() and after deinit().
    /// May be called from any thread at any time in the context's life, also from callbacks. Holds
    /// the client's lock only while it copies, and calls no user code.
    std::vector<RegistrationStatus> getRegistrations() const;

  private:
    friend class OrvServiceRegistryClient;

    struct Data;
    /// Sets the library's client, whose registrations getRegistrations() returns, even if a factory
    /// wraps that client.
    ORVX_HIDDEN void attach(std::shared_ptr<ClientReference> client);

    Data* data_;
};

}  // namespace orvx::serviceregistryclient
