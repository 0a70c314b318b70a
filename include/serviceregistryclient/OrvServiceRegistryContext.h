#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClient.h>
#include <serviceregistryclient/IOrvServiceRegistryClientFactory.h>
#include <serviceregistryclient/IOrvServiceRegistryContext.h>

#include <orvx/communication/HttpConfig.h>
#include <orvx/utility/ILoggerFactory.h>

#include <memory>

namespace orvx::serviceregistryclient {

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

    /// Stored and readable; no operation consults it: synchronous registrations wait without limit.
    /// Default: 30 s.
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

    /// How long a check waits for its answer. A check that has to wait longer is the service's last
    /// one: keep it well above what the registry needs. Keep it below the check interval, too: the
    /// time-out of a check runs on after the answer, and when it passes while a later check waits,
    /// that check is given up and becomes the service's last one. Zero and less leave no time at
    /// all. Default: 3 s.
    std::chrono::milliseconds getHeadTimeout() const;
    /// See getHeadTimeout().
    void setHeadTimeout(std::chrono::milliseconds timeout);

    /// How HTTP is spoken: time-outs, bounds, headers, credentials, proxy or Unix socket, TLS,
    /// statistics. init() refuses one that cannot work. Default: communication::HttpConfig.
    const communication::HttpConfig& getHttpConfig() const;
    /// See getHttpConfig().
    void setHttpConfig(communication::HttpConfig config);

  private:
    struct Data;
    Data* data_;
};

}  // namespace orvx::serviceregistryclient
