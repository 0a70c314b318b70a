// The options, and the life of the only client. Entered by one user thread at a time. The client's
// threads only call getters, after init(), when nothing changes any more; getRegistrations() may be
// called by any thread at any time. Callbacks may call deinit(), also while another thread ends the
// client. The only lock guards `attached`, the release of the factories and the progress of the
// end.

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include "../client/OrvServiceRegistryClient.h"
#include "../client/Upkeep.h"

#include <serviceregistryclient/OrvServiceRegistryClientFactory.h>

#include <orvx/utility/ForkMark.h>
#include <orvx/utility/Mutex.h>
#include <orvx/utility/OrvFoundationException.h>
#include <orvx/utility/TimedConsoleLoggerFactory.h>

#include <atomic>
#include <condition_variable>
#include <thread>
#include <utility>

namespace orvx::serviceregistryclient {

using communication::HttpConfig;
using communication::HttpResponse;
using utility::ILogger;
using utility::ILoggerFactory;
using utility::OrvFoundationException;

// The client's callbacks call getters until the client is destroyed. So every member that a getter
// returns is declared before the client, or is trivially destructible.
struct OrvServiceRegistryContext::Data {
    /// For getRegistrations(), which may be called while the client ends.
    utility::Mutex mutex;
    std::shared_ptr<ClientReference> attached ORVX_GUARDED_BY(mutex);
    /// Set while deinit() withdraws the services and takes the client, and for good by the
    /// destructor: a callback that calls deinit() meanwhile must not end the client, too.
    bool isEnding ORVX_GUARDED_BY(mutex) = false;
    /// The thread that is inside deinit().
    std::thread::id endingThread ORVX_GUARDED_BY(mutex);
    std::condition_variable ended;

    /// Returns false if the client is being ended already.
    bool beginEnd(bool& isOutermost) {
        const utility::MutexLock lock(mutex);
        if (isEnding) {
            return false;
        }
        isEnding = true;
        isOutermost = endingThread == std::thread::id();
        if (isOutermost) {
            endingThread = std::this_thread::get_id();
        }
        return true;
    }
    /// From here on callbacks may call deinit() and init().
    void clientIsTaken() {
        const utility::MutexLock lock(mutex);
        isEnding = false;
    }
    void endEnd() {
        const utility::MutexLock lock(mutex);
        endingThread = std::thread::id();
        ended.notify_all();
    }
    /// Waits for a callback that is inside deinit().
    void endForGood() {
        utility::MutexLock lock(mutex);
        while (endingThread != std::thread::id() && endingThread != std::this_thread::get_id()) {
            ended.wait(lock.native());
        }
        isEnding = true;
    }

    std::shared_ptr<ClientReference> attachedClient() {
        const utility::MutexLock lock(mutex);
        return attached;
    }

    void withdrawEverything() {
        const auto reference = attachedClient();
        if (reference && withdrawAtDeinit > std::chrono::milliseconds::zero()) {
            reference->call([this](OrvServiceRegistryClient& ending) {
                ending.withdrawWithin(withdrawAtDeinit);
            });
        }
    }

    /// Called by the destructor: first the client factory is released, then the logger factory, and
    /// the client after both. Getters may be running.
    void releaseFactories() {
        std::shared_ptr<ILoggerFactory> loggers;
        std::shared_ptr<IOrvServiceRegistryClientFactory> clients;
        const utility::MutexLock lock(mutex);
        clients.swap(clientFactory);
        loggers.swap(loggerFactory);
    }

    bool retryEnabled = true;
    bool checkEnabled = true;
    std::uint16_t maxRetryCount = 0;
    std::chrono::seconds checkInterval{10};
    std::chrono::milliseconds retryInterval{500};
    HttpConfig httpConfig;
    RegistrationListener registrationListener;
    std::set<HttpResponse::StatusCode> httpStatusCodesForRetry{
        HttpResponse::StatusCode::InternalServerError,
        HttpResponse::StatusCode::ServiceUnavailable,
        HttpResponse::StatusCode::GatewayTimeout,
    };
    std::shared_ptr<ILoggerFactory> loggerFactory;
    std::shared_ptr<IOrvServiceRegistryClientFactory> clientFactory;
    std::unique_ptr<IOrvServiceRegistryClient> client;
    /// The client, also while it is being destroyed, which may call callbacks; null if a callback
    /// has called deinit(). Atomic, because callbacks read it meanwhile.
    std::atomic<IOrvServiceRegistryClient*> current{nullptr};
    /// Atomic, because getRegistrations() reads it from any thread.
    std::atomic<bool> initiated{false};
    bool registerWithPrefix = false;
    std::chrono::milliseconds syncCallRegistryTimeout{30000};
    std::chrono::milliseconds syncCallUnregisterTimeout{30000};
    std::chrono::milliseconds headTimeout{3000};
    ILogger::LogLevel logLevel = utility::Logger::DEFAULT_LOG_LEVEL;
    bool retryOnHttpStatusEnabled = false;
    bool resilienceEnabled = false;
    std::chrono::milliseconds withdrawAtDeinit{0};
    utility::ForkMark mark;
    /// Used by leakInForkedChild().
    Data* nextLeaked = nullptr;

    /// In a forked child the client has no threads, and any lock that they held is held for ever.
    bool isInForkedChild() const { return initiated && mark.isInForkedChild(); }

    void refuseAfterInit(const char* message) const {
        if (initiated) {
            throw OrvFoundationException(message, 0);
        }
    }

    void refuseBeforeInit(const char* message) const {
        if (!initiated) {
            throw OrvFoundationException(message, 0);
        }
    }
};

IOrvServiceRegistryContext::~IOrvServiceRegistryContext() = default;

OrvServiceRegistryContext::OrvServiceRegistryContext() : data_(new Data) {}

OrvServiceRegistryContext::~OrvServiceRegistryContext() {
    if (data_->isInForkedChild()) {
        utility::leakInForkedChild(data_);
        return;
    }
    data_->endForGood();
    data_->withdrawEverything();
    data_->releaseFactories();
    delete data_;
}

void OrvServiceRegistryContext::init() {
    data_->refuseAfterInit("OrvServiceRegistryContext already initiated");
    if (!data_->loggerFactory) {
        data_->loggerFactory =
            std::make_shared<utility::TimedConsoleLoggerFactory>(data_->logLevel);
    }
    data_->loggerFactory->setLogLevel(data_->logLevel);
    if (!data_->clientFactory) {
        data_->clientFactory = std::make_shared<OrvServiceRegistryClientFactory>(*this);
    }
    data_->client = data_->clientFactory->createOrvServiceRegistryClient(data_->loggerFactory,
                                                                         data_->registerWithPrefix);
    data_->current = data_->client.get();
    data_->mark.set();
    data_->initiated = true;
}

void OrvServiceRegistryContext::deinit() {
    bool isOutermost = false;
    if (!data_->initiated || data_->isInForkedChild() || !data_->beginEnd(isOutermost)) {
        return;
    }
    if (data_->client) {
        data_->withdrawEverything();
    }
    auto client = std::move(data_->client);
    IOrvServiceRegistryClient* const ending = client.get();
    data_->current = ending;
    data_->clientIsTaken();
    client.reset();
    // A callback may have called this function, and init() after it.
    if (data_->current == ending) {
        data_->current = nullptr;
        data_->initiated = false;
    }
    if (isOutermost) {
        data_->endEnd();
    }
}

bool OrvServiceRegistryContext::isInitiated() {
    return data_->initiated;
}

IOrvServiceRegistryClient* OrvServiceRegistryContext::getServiceRegistryClient() {
    data_->refuseBeforeInit("Cannot get ServiceRegistryDelegator before init");
    return data_->current;
}

void OrvServiceRegistryContext::enableRetry(bool enable) {
    data_->refuseAfterInit("enabling retry after init is not allowed");
    data_->retryEnabled = enable;
}

bool OrvServiceRegistryContext::isRetryEnabled() const {
    return data_->retryEnabled;
}

void OrvServiceRegistryContext::enableRetryOnHttpStatus(bool enable) {
    data_->refuseAfterInit("enabling retryAfterHttpStatus after init is not allowed");
    data_->retryOnHttpStatusEnabled = enable;
}

bool OrvServiceRegistryContext::isRetryOnHttpStatusEnabled() const {
    return data_->retryOnHttpStatusEnabled;
}

void OrvServiceRegistryContext::setHttpStatusCodesForRetry(
    const std::set<HttpResponse::StatusCode>& statusCodes) {
    data_->refuseAfterInit("setting status codes after init is not allowed");
    data_->httpStatusCodesForRetry = statusCodes;
}

const std::set<HttpResponse::StatusCode>& OrvServiceRegistryContext::getHttpStatusCodesForRetry()
    const {
    return data_->httpStatusCodesForRetry;
}

void OrvServiceRegistryContext::enableCheck(bool enable) {
    data_->refuseAfterInit("enabling registration status check after init is not allowed");
    data_->checkEnabled = enable;
}

bool OrvServiceRegistryContext::isCheckEnabled() const {
    return data_->checkEnabled;
}

void OrvServiceRegistryContext::setCheckInterval(std::chrono::seconds interval) {
    data_->refuseAfterInit("setting check interval after init is not allowed");
    data_->checkInterval = interval;
}

std::chrono::seconds OrvServiceRegistryContext::getCheckInterval() const {
    return data_->checkInterval;
}

void OrvServiceRegistryContext::setRetryInterval(std::chrono::milliseconds interval) {
    data_->refuseAfterInit("setting retry interval after init is not allowed");
    data_->retryInterval = interval;
}

std::chrono::milliseconds OrvServiceRegistryContext::getRetryInterval() const {
    return data_->retryInterval;
}

void OrvServiceRegistryContext::setInitialMaxRetryCount(std::uint16_t count) {
    data_->refuseAfterInit("setting max retry count after init is not allowed");
    data_->maxRetryCount = count;
}

std::uint16_t OrvServiceRegistryContext::maxRetryCount() const {
    return data_->maxRetryCount;
}

ILoggerFactory* OrvServiceRegistryContext::getLoggerFactory() const {
    data_->refuseBeforeInit("Cannot get LoggerFactory before init");
    const utility::MutexLock lock(data_->mutex);
    return data_->loggerFactory.get();
}

void OrvServiceRegistryContext::setLoggerFactory(std::shared_ptr<ILoggerFactory> loggerFactory) {
    data_->refuseAfterInit(
        "setting logger factory for serviceregistry context after init is not allowed");
    data_->loggerFactory = std::move(loggerFactory);
}

std::shared_ptr<IOrvServiceRegistryClientFactory>
OrvServiceRegistryContext::getOrvServiceRegistryClientFactory() const {
    data_->refuseBeforeInit(
        "failed to get RegistryClient factory because context is not initialized");
    const utility::MutexLock lock(data_->mutex);
    return data_->clientFactory;
}

void OrvServiceRegistryContext::setOrvServiceRegistryClientFactory(
    std::shared_ptr<IOrvServiceRegistryClientFactory> clientFactory) {
    data_->refuseAfterInit("setting RegistryClient factory after init is not allowed");
    data_->clientFactory = std::move(clientFactory);
}

bool OrvServiceRegistryContext::getRegisterWithPrefix() const {
    return data_->registerWithPrefix;
}

void OrvServiceRegistryContext::setRegisterWithPrefix(bool registerWithPrefix) {
    data_->refuseAfterInit(
        "setting prefix usage for serviceregistry context after init is not allowed");
    data_->registerWithPrefix = registerWithPrefix;
}

std::chrono::milliseconds OrvServiceRegistryContext::getSyncCallRegistryTimeout() const {
    return data_->syncCallRegistryTimeout;
}

void OrvServiceRegistryContext::setSyncCallRegistryTimeout(std::chrono::milliseconds timeout) {
    data_->refuseAfterInit("setting registry timeout after init is not allowed");
    data_->syncCallRegistryTimeout = timeout;
}

std::chrono::milliseconds OrvServiceRegistryContext::getSyncCallUnregisterTimeout() const {
    return data_->syncCallUnregisterTimeout;
}

void OrvServiceRegistryContext::setSyncCallUnregisterTimeout(std::chrono::milliseconds timeout) {
    data_->refuseAfterInit("setting registry sync unregister timeout after init is not allowed");
    data_->syncCallUnregisterTimeout = timeout;
}

ILogger::LogLevel OrvServiceRegistryContext::getLogLevel() const {
    return data_->logLevel;
}

void OrvServiceRegistryContext::setLogLevel(ILogger::LogLevel level) {
    data_->refuseAfterInit("setting log level after init is not allowed");
    data_->logLevel = level;
}

std::chrono::milliseconds OrvServiceRegistryContext::getHeadTimeout() const {
    return data_->headTimeout;
}

void OrvServiceRegistryContext::setHeadTimeout(std::chrono::milliseconds timeout) {
    data_->refuseAfterInit("setting headTimeout after init is not allowed");
    data_->headTimeout = timeout;
}

const HttpConfig& OrvServiceRegistryContext::getHttpConfig() const {
    return data_->httpConfig;
}

void OrvServiceRegistryContext::setHttpConfig(HttpConfig config) {
    data_->refuseAfterInit("setting http config after init is not allowed");
    data_->httpConfig = std::move(config);
}

void OrvServiceRegistryContext::enableResilience(bool enable) {
    data_->refuseAfterInit("enabling resilience after init is not allowed");
    data_->resilienceEnabled = enable;
}

bool OrvServiceRegistryContext::isResilienceEnabled() const {
    return data_->resilienceEnabled;
}

void OrvServiceRegistryContext::setWithdrawAtDeinit(std::chrono::milliseconds bound) {
    data_->refuseAfterInit("setting withdrawal at deinit after init is not allowed");
    data_->withdrawAtDeinit = bound;
}

std::chrono::milliseconds OrvServiceRegistryContext::getWithdrawAtDeinit() const {
    return data_->withdrawAtDeinit;
}

void OrvServiceRegistryContext::setRegistrationListener(RegistrationListener listener) {
    data_->refuseAfterInit("setting registration listener after init is not allowed");
    data_->registrationListener = std::move(listener);
}

const RegistrationListener& OrvServiceRegistryContext::getRegistrationListener() const {
    return data_->registrationListener;
}

std::vector<RegistrationStatus> OrvServiceRegistryContext::getRegistrations() const {
    if (data_->isInForkedChild()) {
        return {};
    }
    std::vector<RegistrationStatus> statuses;
    if (const auto attached = data_->attachedClient()) {
        attached->call(
            [&](OrvServiceRegistryClient& client) { statuses = client.upkeep->statuses(); });
    }
    return statuses;
}

void OrvServiceRegistryContext::attach(std::shared_ptr<ClientReference> client) {
    const utility::MutexLock lock(data_->mutex);
    data_->attached = std::move(client);
}

}  // namespace orvx::serviceregistryclient
