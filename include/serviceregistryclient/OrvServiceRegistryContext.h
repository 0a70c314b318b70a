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

/// The object that a process creates first: holds the options, makes and owns the one client.
/// See IOrvServiceRegistryContext for the rules; the operations added here follow them.
/// Destroying a context that is initialised ends its client.
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

    /// Where log lines go. Default: utility::TimedConsoleLoggerFactory, made by init(). It is given
    /// the context's log level by init(). The getter throws before init().
    utility::ILoggerFactory* getLoggerFactory() const;
    /// See getLoggerFactory().
    void setLoggerFactory(std::shared_ptr<utility::ILoggerFactory> loggerFactory);

    /// What makes the client. Default: OrvServiceRegistryClientFactory, made by init(). The getter
    /// throws before init().
    std::shared_ptr<IOrvServiceRegistryClientFactory> getOrvServiceRegistryClientFactory() const;
    /// See getOrvServiceRegistryClientFactory().
    void setOrvServiceRegistryClientFactory(
        std::shared_ptr<IOrvServiceRegistryClientFactory> clientFactory);

    /// Whether the uri of a description that the client builds begins with the prefix of its
    /// ServiceInfo instead of "/". Default: false.
    bool getRegisterWithPrefix() const;
    /// See getRegisterWithPrefix().
    void setRegisterWithPrefix(bool registerWithPrefix);

    /// How long a synchronous registration waits with resilience; zero means without limit, less
    /// than zero not at all. Without resilience no operation consults it: synchronous registrations
    /// wait without limit. Default: 30 s.
    std::chrono::milliseconds getSyncCallRegistryTimeout() const;
    /// See getSyncCallRegistryTimeout().
    void setSyncCallRegistryTimeout(std::chrono::milliseconds timeout);

    /// How long a synchronous withdrawal waits; zero means without limit, less than zero not at
    /// all. Default: 30 s.
    std::chrono::milliseconds getSyncCallUnregisterTimeout() const;
    /// See getSyncCallUnregisterTimeout().
    void setSyncCallUnregisterTimeout(std::chrono::milliseconds timeout);

    /// What matters less is not logged. Default: utility::Logger::DEFAULT_LOG_LEVEL.
    utility::ILogger::LogLevel getLogLevel() const;
    /// See getLogLevel().
    void setLogLevel(utility::ILogger::LogLevel level);

    /// How long a check waits for its answer. Without resilience a check that has to wait longer is
    /// the service's last one: keep it well above what the registry needs. Keep it below the check
    /// interval, too: the time-out of a check runs on after the answer, and when it passes while a
    /// later check waits, that check is given up and becomes the service's last one. Zero and less
    /// leave no time at all. Default: 3 s.
    std::chrono::milliseconds getHeadTimeout() const;
    /// See getHeadTimeout().
    void setHeadTimeout(std::chrono::milliseconds timeout);

    /// How HTTP is spoken: time-outs, bounds, headers, credentials, proxy or Unix socket, TLS,
    /// statistics. init() refuses one that cannot work. Default: communication::HttpConfig.
    const communication::HttpConfig& getHttpConfig() const;
    /// See getHttpConfig().
    void setHttpConfig(communication::HttpConfig config);

    /// Whether the client keeps its announcements valid whatever the registry does. Off, the client
    /// follows the rules that the other options and operations state. On, these go before:
    ///
    /// Each entry is checked by itself, for as long as a service is announced there. A check that
    /// is not answered within the head time-out is given up alone, and the next one is due after
    /// the interval; the first one within it. The first 404, and the first answer after none, make
    /// the other entries at that registry due at once, paced.
    ///
    /// A withdrawal may be asked for at any time, and wins. It is answered OK / NONE when the entry
    /// is gone (200, 204, 404 and 410 mean so), or ERROR / TIMEOUT once when the unregister
    /// time-out has passed before; the client goes on trying until its end. A DELETE that is
    /// answered with a status that does not pass (403, for example) answers ERROR /
    /// SERVICE_REGISTRY_ERROR, and is tried again at the check interval. A registration that still
    /// waits is answered ERROR / OTHER first.
    ///
    /// Two registrations of one path at one registry share its entry: the registry holds the latest
    /// description that is not withdrawn, and the entry is deleted with the last one.
    ///
    /// 408, 425, 429, 500, 502, 503, 504 and no answer are tried again by the back-off, not before
    /// a Retry-After (a minute at most). Another refusal of a first registration, and an endpoint
    /// that cannot be one, are answered at once. An entry that was announced before is never given
    /// up: after such a refusal it is tried again at the check interval.
    ///
    /// enableRetry(false) and setInitialMaxRetryCount() end a first registration that fails: its
    /// callback hears ERROR / SERVICE_REGISTRY_ERROR, and what may have come into being is deleted.
    /// With enableRetryOnHttpStatus(true) the statuses of setHttpStatusCodesForRetry() are tried
    /// again too. Without checks a loss is not noticed.
    ///
    /// Blocking calls return: a registration after the registry time-out (zero: none) with ERROR /
    /// TIMEOUT, from a callback or listener at once with ERROR / OTHER, when the client is stopped
    /// with ERROR / DELEGATOR_NOT_INITIATED. Sets may have any number of services, also none.
    ///
    /// Every callback is called exactly once. Those that wait when the client is stopped are called
    /// with ERROR / DELEGATOR_NOT_INITIATED before deinit() returns, on the thread that calls it,
    /// and must not destroy the context; a registration that is answered so is over, also when the
    /// client is started again. Handles that are called when the context was de-initialised do
    /// nothing, as without resilience.
    ///
    /// Default: false.
    void enableResilience(bool enable);
    /// What enableResilience() set.
    bool isResilienceEnabled() const;

    /// How long deinit() and the destructor may take to withdraw everything first, with resilience
    /// or without. Names that could not be withdrawn in time are logged as warnings. Zero and less:
    /// nothing is withdrawn. Default: 0.
    void setWithdrawAtDeinit(std::chrono::milliseconds bound);
    /// What setWithdrawAtDeinit() set.
    std::chrono::milliseconds getWithdrawAtDeinit() const;

    /// Told of what becomes of each registration; see RegistrationEvent. It is called on the
    /// client's callback thread, in order with the callbacks and by their rules, with resilience or
    /// without. Default: none.
    void setRegistrationListener(RegistrationListener listener);
    /// What setRegistrationListener() set; valid until it is called again or the context ends.
    const RegistrationListener& getRegistrationListener() const;

    /// Every registration that the client manages now, by ascending request id, with resilience or
    /// without; none before init() and after deinit().
    /// May be called from any thread at any time in the context's life, also from callbacks. It
    /// holds the client's lock for no longer than a copy takes, and calls no user code.
    std::vector<RegistrationStatus> getRegistrations() const;

  private:
    friend class OrvServiceRegistryClient;

    struct Data;
    /// The client whose registrations these are: the library's own, whatever a factory made of it.
    ORVX_HIDDEN void attach(std::shared_ptr<ClientReference> client);

    Data* data_;
};

}  // namespace orvx::serviceregistryclient
