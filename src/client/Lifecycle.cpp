// Construction, start and stop of the client. Entered by the user's thread that makes, initialises
// or ends the context; the end may come from inside a callback. The lock is held only to test and
// clear `initiated`: what is being stopped may still need it to finish.
#include "RegistrationTable.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <exception>
#include <utility>

namespace orvx::serviceregistryclient {

namespace {

constexpr const char* callbackThread = "ORVX_SRCBExec";
constexpr const char* timerThread = "ORVX_SRRExec";

}  // namespace

OrvServiceRegistryClient::OrvServiceRegistryClient(std::shared_ptr<utility::ILoggerFactory> factory,
                                                   bool withPrefix,
                                                   OrvServiceRegistryContext& owner)
    : context(owner),
      registerWithPrefix(withPrefix),
      syncCallUnregisterTimeout(owner.getSyncCallUnregisterTimeout()),
      statusCodesForRetry(owner.getHttpStatusCodesForRetry()),
      callbackExecutor(callbackThread, {}),
      mapRegistryCallback(std::make_unique<RegistrationTable>()) {
    loggerFactory = std::move(factory);
    logger = std::make_shared<utility::StreamingLogger>(
        loggerFactory->createLogger("OrvxServiceRegistryClient", "OrvServiceRegistryClient"));
    init();
}

OrvServiceRegistryClient::~OrvServiceRegistryClient() {
    reference->clear();
    deinitImpl();
}

void OrvServiceRegistryClient::init() {
    if (initiated) {
        return;
    }
    communicationContext.setLoggerFactory(loggerFactory);
    communicationContext.setLogLevel(context.getLogLevel());
    communicationContext.setHttpConfig(context.getHttpConfig());
    communicationContext.init();
    startExecutorOrTerminate();
    try {
        timer.start(timerThread);
    } catch (...) {
        stopParts();
        throw;
    }
    initiated = true;
}

// Without the callback thread no outcome could ever be told: the process ends instead.
void OrvServiceRegistryClient::startExecutorOrTerminate() noexcept {
    try {
        callbackExecutor.start();
    } catch (const std::exception& error) {
        logger->logError(false) << "OrvxServiceRegistryClient ends the process: its callback "
                                   "thread cannot be started: "
                                << error.what();
        loggerFactory->flush();
        std::terminate();
    }
}

void OrvServiceRegistryClient::deinit() {
    deinitImpl();
}

void OrvServiceRegistryClient::deinitImpl() {
    {
        const utility::MutexLock lock(mutex);
        if (!initiated) {
            return;
        }
        initiated = false;
    }
    stopParts();
}

void OrvServiceRegistryClient::stopParts() {
    communicationContext.deinit();
    callbackExecutor.stopAndClear();
    if (timer.isRunning()) {
        timer.stop();
    }
}

}  // namespace orvx::serviceregistryclient
