// Construction, start and stop of the client. Entered by the user's thread that makes, initialises
// or ends the context; the end may come from inside a callback. The lock is held only to test and
// clear `initiated`, because the threads that are being stopped may need it to finish.

#include "BasicUpkeep.h"
#include "RegistrationTable.h"
#include "ResilientUpkeep.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

namespace orvx::serviceregistryclient {

namespace {

constexpr const char* kCallbackThread = "ORVX_SRCBExec";
constexpr const char* kTimerThread = "ORVX_SRRExec";

std::shared_ptr<const RegistrationListener> shared(const RegistrationListener& listener) {
    return listener ? std::make_shared<const RegistrationListener>(listener) : nullptr;
}

}  // namespace

OrvServiceRegistryClient::OrvServiceRegistryClient(std::shared_ptr<utility::ILoggerFactory> factory,
                                                   bool withPrefix,
                                                   OrvServiceRegistryContext& owner)
    : context(owner),
      registerWithPrefix(withPrefix),
      syncCallUnregisterTimeout(owner.getSyncCallUnregisterTimeout()),
      callbackExecutor(kCallbackThread, {}),
      mapRegistryCallback(std::make_unique<RegistrationTable>()),
      registrationListener(shared(owner.getRegistrationListener())),
      upkeep(owner.isResilienceEnabled()
                 ? std::shared_ptr<Upkeep>(std::make_shared<ResilientUpkeep>(*this))
                 : std::make_shared<BasicUpkeep>(*this)) {
    loggerFactory = std::move(factory);
    logger = std::make_shared<utility::StreamingLogger>(
        loggerFactory->createLogger("OrvxServiceRegistryClient", "OrvServiceRegistryClient"));
    init();
    context.attach(reference);
}

OrvServiceRegistryClient::~OrvServiceRegistryClient() {
    reference->clear();
    deinitImpl();
    upkeep->stop();  // answers the calls that came after the stop
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
        timer.start(kTimerThread);
    } catch (...) {
        stopParts();
        throw;
    }
    isEnding = false;
    initiated = true;
    upkeep->start();
}

// Without the callback thread no outcome could be reported, so the process ends.
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
    upkeep->stop();
}

void OrvServiceRegistryClient::withdrawWithin(std::chrono::milliseconds bound) {
    {
        const utility::MutexLock lock(mutex);  // after the registrations that are being stored
        isEnding = true;
    }
    try {
        for (const std::string& name :
             upkeep->withdrawWithin(std::min(bound, Upkeep::kLongestWait))) {
            logger->logWarning(false)
                << "not withdrawn within " << bound.count() << " ms: " << name;
        }
    } catch (const std::bad_alloc&) {
        // There is no memory for the names. The client ends nevertheless.
    }
}

void OrvServiceRegistryClient::stopParts() {
    communicationContext.deinit();
    callbackExecutor.stopAndClear();
    if (timer.isRunning()) {
        timer.stop();
    }
}

}  // namespace orvx::serviceregistryclient
