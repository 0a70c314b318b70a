#pragma once

#include "ClientReference.h"
#include "RegistrationState.h"

#include <serviceregistryclient/IOrvServiceRegistryClient.h>
#include <serviceregistryclient/RegistrationStatus.h>

#include <orvx/communication/IClientHttpSession.h>
#include <orvx/communication/OrvClientCommunicationContext.h>
#include <orvx/utility/Mutex.h>
#include <orvx/utility/QueuedTimer.h>
#include <orvx/utility/SingleThreadAsyncTaskExecutor.h>
#include <orvx/utility/StreamingLogger.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace orvx::serviceregistryclient {

class OrvServiceRegistryContext;

/// The library's client. Users see it as IOrvServiceRegistryClient; their own clients may wrap it.
///
/// Files, in the order of the declarations below:
///   Lifecycle.cpp            construction, start, stop
///   Sessions.cpp             one HTTP session for each registry endpoint
///   Description.cpp          descriptions built from an endpoint
///   Upkeep.h                 the interface of the two ways to keep registrations: by the members
///                            below (BasicUpkeep.h), or with resilience (ResilientUpkeep.h)
///   Registration.cpp         the PUT
///   RegistrationAnswer.cpp   the answer to a successful PUT
///   RegistrationFailure.cpp  the answer to a failed PUT: retry, or give up
///   StatusCheck.cpp          the periodic HEAD, its time-out, re-registration
///   StatusListener.cpp       setting and removing the status listener
///   Unregistration.cpp       the DELETE and its answer
///   CallbackDispatch.cpp     delivery of outcomes to user code
///   Memory.h                 retries when memory runs out
///   Synchronous.cpp          one service, blocking
///   ServiceCollection.cpp    many services, in both forms
///   UnregisterAll.cpp        withdrawing all services, in both forms
///   Records.h                the records of requests and registrations
///   RegistrationState.h      the states of a registration and their transitions
///   RegistrationFacts.h      the reported status of a registration, with or without resilience
///   RegistrationTable.h      the table of registrations and its index
///   ClientReference.h        access of handles and removers to the client
///
/// Threads: the user's threads (public operations), "ORVX_SRCBExec" (user code only),
/// "ORVX_SRRExec" (retries, checks, time-outs), and the communication library's I/O thread
/// (`handle...Response`).
///
/// Lock rule: `mutex` guards the client's state. It is never held together with
/// the lock of a ClientReference or of a blocking call. Guarded data is read and changed under
/// `mutex`; the fields of a record are annotated, so clang checks each access, in every function
/// that shares the record. User code is neither called, copied nor destroyed under it: callbacks
/// and listeners are moved or shared there, and released after unlocking. A log line may be written
/// under it.
///
/// Memory: a step of the library's threads under the lock allocates everything before it changes
/// anything, or can be repeated from its beginning; see retryOnBadAlloc().
class OrvServiceRegistryClient : public IOrvServiceRegistryClient {
  public:
    struct RequestContainer;
    struct CallbackList;
    struct RegistrationData;
    class RegistrationTable;
    class Upkeep;
    class BasicUpkeep;
    class ResilientUpkeep;

    // Lifecycle.cpp

    /// Starts the client; throws what init() throws.
    OrvServiceRegistryClient(std::shared_ptr<utility::ILoggerFactory> loggerFactory,
                             bool registerWithPrefix, OrvServiceRegistryContext& context);
    ~OrvServiceRegistryClient() override;

    /// Starts the client; does nothing while it runs. Must not be called while another thread uses
    /// the client.
    void init();
    /// Stops the client; its registrations are kept for the next init(). Does nothing when stopped.
    void deinit();

    // Description.cpp
    common::ServiceCreate getServiceCreate(const common::ServiceInfo& serviceInfo) override;
    std::shared_ptr<common::ServiceCreate> getSharedServiceCreate(
        const common::ServiceInfo& serviceInfo) override;

    // Registration.cpp
    UnregisterHandle registerServiceAtRegistry(
        const common::ServiceInfo& serviceInfo,
        const std::shared_ptr<common::ServiceCreate>& service, ResponseCallback callback) override;

    // StatusListener.cpp
    std::function<void()> addServiceRegisterStatusListener(StatusListener listener) override;

    // Synchronous.cpp
    SyncOrvRegistrationResponse registerServiceAtRegistry(
        const common::ServiceInfo& serviceInfo,
        const std::shared_ptr<common::ServiceCreate>& service) override;

    // ServiceCollection.cpp
    std::map<std::shared_ptr<common::ServiceModel>, UnregisterHandle> registerServicesAtRegistry(
        const common::ServiceInfo& serviceInfo, const ServiceSet& services,
        ServiceCallback callback) override;
    std::pair<bool, std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse>>
    registerServicesAtRegistry(const common::ServiceInfo& serviceInfo,
                               const ServiceSet& services) override;

    // UnregisterAll.cpp
    void unregisterAllServicesFromRegistry(ServiceCallback callback) override;
    std::pair<bool, std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse>>
    unregisterAllServicesFromRegistry() override;

  private:
    friend class ClientTestAccess;
    friend class OrvServiceRegistryContext;

    using Response = std::shared_ptr<OrvRegistrationResponse>;
    using Callbacks = std::vector<ResponseCallback>;
    using Promise = std::shared_ptr<std::promise<OrvRegistrationResponse>>;
    using Tasks = utility::SingleThreadAsyncTaskExecutor::Tasks;

    static constexpr RegistrationState::Target REGISTERING = RegistrationState::REGISTERING;
    static constexpr RegistrationState::Target REREGISTERING = RegistrationState::REREGISTERING;
    static constexpr RegistrationState::Target REGISTERED = RegistrationState::REGISTERED;
    static constexpr RegistrationState::Target UNREGISTERING = RegistrationState::UNREGISTERING;
    /// The state of the status check. Intentionally one state for all registrations.
    enum HeadState : std::uint32_t {
        IDLE = 0,
        TIMEOUT = 1,
        RESPONDED = 2,
        PENDING = 3,
    };

    // Lifecycle.cpp
    void deinitImpl() ORVX_EXCLUDES(mutex);
    void stopParts() ORVX_EXCLUDES(mutex);
    void startExecutorOrTerminate() noexcept;
    void withdrawWithin(std::chrono::milliseconds bound) ORVX_EXCLUDES(mutex);

    // Sessions.cpp
    std::shared_ptr<communication::IClientHttpSession> createOrGetRegistryClientSession(
        const common::ServiceInfo& serviceInfo) ORVX_REQUIRES(mutex);
    std::shared_ptr<communication::IClientHttpSession> usableSessionLocked(
        const common::ServiceInfo& serviceInfo) ORVX_REQUIRES(mutex);
    std::shared_ptr<communication::IClientHttpSession> beginRequestLocked(
        std::uint64_t id, const RequestContainer& request, const char* caller) ORVX_REQUIRES(mutex);
    bool isWithoutSessionLocked(const common::ServiceInfo& serviceInfo) const ORVX_REQUIRES(mutex);

    // Registration.cpp
    UnregisterHandle internal_registerAtRegistry(
        const common::ServiceInfo& serviceInfo,
        const std::shared_ptr<common::ServiceCreate>& service, ResponseCallback callback)
        ORVX_EXCLUDES(mutex);
    std::uint64_t storeRegistration(const common::ServiceInfo& serviceInfo,
                                    const std::shared_ptr<RequestContainer>& request,
                                    ResponseCallback callback, UnregisterHandle& handle)
        ORVX_EXCLUDES(mutex);
    void sendPutRequest(std::uint64_t id, const std::shared_ptr<RequestContainer>& request)
        ORVX_EXCLUDES(mutex);
    template <typename Withdraw>
    UnregisterHandle makeHandle(Withdraw withdraw) const;
    UnregisterHandle makeHandleFor(std::uint64_t id) const;
    UnregisterHandle handleOfRefusedService(const std::string& name) const;
    UnregisterHandle handleOfUnnamedService() const;

    // RegistrationAnswer.cpp
    void handlePutResponse(std::uint64_t id, const std::shared_ptr<RequestContainer>& request,
                           communication::HttpResponse response) ORVX_EXCLUDES(mutex);
    /// The actions that follow a success after unlocking.
    enum class Success { Known, Unknown, Withdrawn };
    Success recordSuccess(std::uint64_t id, RequestContainer& request, const std::string& location,
                          Callbacks& callbacks, bool& isRecorded) ORVX_EXCLUDES(mutex);
    Callbacks recordEntryLocked(RegistrationData& record, RequestContainer& request,
                                const std::string& uuid, const std::string& location)
        ORVX_REQUIRES(mutex);
    /// Only adds a timer task, so the lock may be held or not.
    void scheduleCheck(std::uint64_t id, const std::shared_ptr<RequestContainer>& request);

    // RegistrationFailure.cpp
    void handlePutResponseError(std::uint64_t id, const std::shared_ptr<RequestContainer>& request,
                                communication::HttpResponse response) ORVX_EXCLUDES(mutex);
    /// The actions that follow a failure after unlocking.
    enum class Failure { Ignored, Retried, GivenUp, Withdrawn };
    Failure recordFailure(std::uint64_t id, const std::shared_ptr<RequestContainer>& request,
                          const communication::HttpResponse& response, Callbacks& callbacks)
        ORVX_EXCLUDES(mutex);
    bool retryLocked(std::uint64_t id, const std::shared_ptr<RequestContainer>& request,
                     RegistrationData& record, const communication::HttpResponse& response)
        ORVX_REQUIRES(mutex);
    bool isRetryable(const communication::HttpResponse& response) const;
    void schedulePutLocked(std::chrono::milliseconds delay, std::uint64_t id,
                           const std::shared_ptr<RequestContainer>& request) ORVX_REQUIRES(mutex);

    // StatusCheck.cpp
    void sendHeadRequest(std::uint64_t id, const std::shared_ptr<RequestContainer>& container)
        ORVX_EXCLUDES(mutex);
    void sendHeadRequestOnce(std::uint64_t id, const std::shared_ptr<RequestContainer>& container)
        ORVX_EXCLUDES(mutex);
    void handleHeadTimeout(communication::IClientHttpSession& session) ORVX_EXCLUDES(mutex);
    void handleHeadResponse(std::uint64_t id, const std::shared_ptr<RequestContainer>& container,
                            const communication::HttpResponse& response) ORVX_EXCLUDES(mutex);
    bool recordHeadResponse(std::uint64_t id, const std::shared_ptr<RequestContainer>& container,
                            const communication::HttpResponse& response, bool& isInTime)
        ORVX_EXCLUDES(mutex);
    void recordCheckLocked(std::uint64_t id, const RequestContainer& container,
                           RegistrationData& record, const communication::HttpResponse& response)
        ORVX_REQUIRES(mutex);
    bool markLostLocked(std::uint64_t id, RequestContainer& container,
                        const communication::HttpResponse& response) ORVX_REQUIRES(mutex);
    std::chrono::milliseconds checkDelay() const;

    // Unregistration.cpp
    void internal_unregisterFromRegistry(const std::uint64_t& id, const ResponseCallback& callback)
        ORVX_EXCLUDES(mutex);
    void sendDeleteRequest(std::uint64_t id, const std::shared_ptr<RequestContainer>& container)
        ORVX_EXCLUDES(mutex);
    void handleDeleteResponse(std::uint64_t id, communication::HttpResponse response)
        ORVX_EXCLUDES(mutex);
    void deleteRegistryEntriesAndNotifyListener(std::uint64_t id, Callbacks& callbacks)
        ORVX_EXCLUDES(mutex);
    void recordRefusal(std::uint64_t id, const communication::HttpResponse& response,
                       Callbacks& callbacks) ORVX_EXCLUDES(mutex);
    void notifyIfEmptyLocked() ORVX_REQUIRES(mutex);
    static bool isUnregistering(const RegistrationState& state);

    // CallbackDispatch.cpp
    void callCallback(ResponseCallback callback, const Response& response) ORVX_EXCLUDES(mutex);
    void callCallbackLocked(ResponseCallback callback, const Response& response)
        ORVX_REQUIRES(mutex);
    void callCallbacks(Callbacks callbacks, OrvRegistrationResponse::Status status,
                       OrvRegistrationResponse::ErrorCode reason,
                       communication::HttpResponse response) ORVX_EXCLUDES(mutex);
    Tasks notificationLocked(std::shared_ptr<const common::ServiceModel> service,
                             bool registered) const ORVX_REQUIRES(mutex);

    // Memory.h
    template <typename Step>
    void retryOnBadAlloc(const Step& step) const ORVX_EXCLUDES(mutex);

    // Synchronous.cpp
    SyncOrvRegistrationResponse registerAndWait(
        const common::ServiceInfo& serviceInfo,
        const std::shared_ptr<common::ServiceCreate>& service);
    static OrvRegistrationResponse makeSynchronizedCallRegistrationResponse(
        const std::function<void(Promise)>& call, std::chrono::milliseconds timeout);
    /// The callback of a blocked caller; a type of its own, so that a handle can recognise it.
    struct PromiseCallback {
        Promise promise;
        void operator()(OrvRegistrationResponse response) const;
    };
    static std::function<OrvRegistrationResponse()> synchronousUnregister(
        UnregisterHandle handle, std::chrono::milliseconds timeout);

    // ServiceCollection.cpp
    std::pair<bool, std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse>>
    registerAllAndWait(const common::ServiceInfo& serviceInfo, const ServiceSet& services);
    static std::pair<bool,
                     std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse>>
    executeSynchronousServiceCollectionRegistryCall(
        const ServiceSet& services,
        const std::function<void(std::shared_ptr<common::ServiceCreate>, ServiceCallback)>&
            registerOne);

    // UnregisterAll.cpp
    std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> snapshot() ORVX_EXCLUDES(mutex);
    std::pair<bool, std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse>>
    withdrawAllAndWait();
    std::pair<bool, std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse>>
    executeSynchronousServiceCollectionUnregistration(
        const std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>>& registrations,
        const std::function<void(std::uint64_t, std::shared_ptr<common::ServiceCreate>,
                                 ServiceCallback)>& unregisterOne);

    // The order matters: members are destroyed from the last to the first. Objects that answers and
    // tasks use are declared before the threads that run these, or the destructor stops those
    // threads first.

    // Constant after construction, or safe by themselves.
    std::shared_ptr<utility::StreamingLogger> logger;
    std::shared_ptr<utility::ILoggerFactory> loggerFactory;
    OrvServiceRegistryContext& context;
    communication::OrvClientCommunicationContext communicationContext;
    std::atomic<bool> initiated{false};
    /// Set when the withdrawal at the end begins: no registration is accepted any more.
    std::atomic<bool> isEnding{false};

    utility::Mutex mutex;

    std::uint64_t lastRequestId ORVX_GUARDED_BY(mutex) = 0;

    // Constant after construction, or safe by themselves.
    const bool registerWithPrefix;
    const std::chrono::milliseconds syncCallUnregisterTimeout;
    utility::SingleThreadAsyncTaskExecutor callbackExecutor;
    utility::QueuedTimer timer;

    // Guarded by the lock.
    std::map<std::string, std::shared_ptr<communication::IClientHttpSession>> sessions
        ORVX_GUARDED_BY(mutex);
    const std::unique_ptr<RegistrationTable> mapRegistryCallback ORVX_PT_GUARDED_BY(mutex);
    StatusListener statusListener ORVX_GUARDED_BY(mutex);
    HeadState checkState ORVX_GUARDED_BY(mutex) = IDLE;

    // Constant after construction, or safe by themselves.

    /// Notified when the last registration is removed.
    std::condition_variable empty;
    const std::shared_ptr<const RegistrationListener> registrationListener;
    const std::shared_ptr<Upkeep> upkeep;

    // Safe by itself. Cleared by the destructor before any thread is stopped.
    const std::shared_ptr<ClientReference> reference = std::make_shared<ClientReference>(*this);
};

}  // namespace orvx::serviceregistryclient
