#pragma once

#include <serviceregistryclient/OrvRegistrationResponse.h>
#include <serviceregistryclient/SyncOrvRegistrationResponse.h>

#include <orvx/common/ServiceCreate.h>
#include <orvx/common/ServiceInfo.h>
#include <orvx/common/ServiceModel.h>
#include <orvx/utility/Export.h>

#include <functional>
#include <map>
#include <memory>
#include <unordered_set>
#include <utility>

namespace orvx::serviceregistryclient {

/// Announces services at a registry, keeps the entries valid and withdraws them.
///
/// Obtained from OrvServiceRegistryContext::getServiceRegistryClient(); valid until the context's
/// deinit() or its end.
///
/// Thread-safety: every operation may be called from any thread, several at once. The asynchronous
/// ones never wait for the network and may be called from callbacks; the synchronous ones block and
/// must never be called from a callback or from the listener: the answer that they wait for is
/// queued behind the caller.
///
/// Callbacks and the status listener run one after another on the client's callback thread
/// ("ORVX_SRCBExec"), in the order in which their outcomes arose, never on the caller's thread and
/// never under a lock of the client's. One that blocks delays those behind it; one that throws is
/// ended there and harms nothing. An empty callback means that the outcome is not wanted. After the
/// context's deinit() none is called any more.
///
/// The callback thread blocks all signals but those of a crash. A child made there with fork() gets
/// the mask of the thread that called init(); a program started with posix_spawn(), vfork(),
/// system() or popen() inherits the blocked signals, SIGTERM among them, unless the callback calls
/// pthread_sigmask() before.
///
/// Ownership: descriptions given to a registration are copied; the caller's object is never
/// changed. Callbacks are copied and destroyed when they were called or dropped.
///
/// What is said here holds without resilience; OrvServiceRegistryContext::enableResilience() says
/// what differs with it.
///
/// Errors: an outcome is an OrvRegistrationResponse. Operations throw std::bad_alloc only.
///
/// The order of the virtual operations is part of the binary interface.
class ORVX_EXPORT IOrvServiceRegistryClient {
  public:
    /// Takes the outcome of one operation.
    using ResponseCallback = std::function<void(OrvRegistrationResponse)>;
    /// Takes the outcome of one service out of several.
    using ServiceCallback =
        std::function<void(std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse)>;
    /// Withdraws the service that it was made for, and reports to the callback. Answers OK / NONE
    /// where the registration was refused at once or the service is withdrawn already, ERROR /
    /// SERVICE_NOT_FOUND while the registry holds no entry yet (the first answer, or the one to an
    /// automatic re-registration, is still out), ERROR / SERVICE_REGISTRY_ERROR when the registry
    /// answers anything but 200. It may be called at any time, from any thread: when the context
    /// was de-initialised or destroyed it does nothing and the callback is never called. The end of
    /// the client waits for calls that are under way.
    using UnregisterHandle = std::function<void(ResponseCallback)>;
    /// Takes a description and whether the service has just become registered (true) or has just
    /// stopped being registered (false). The description is the live one: read it, at any time and
    /// from any thread, but do not change it.
    using StatusListener = std::function<void(std::shared_ptr<const common::ServiceModel>, bool)>;
    /// Descriptions to be registered together; the same object counts once.
    using ServiceSet = std::unordered_set<std::shared_ptr<common::ServiceCreate>>;

    virtual ~IOrvServiceRegistryClient();

    /// Registers a service at the registry and keeps it registered until it is withdrawn.
    ///
    /// `registry` is the registry's endpoint: its host and port. The description needs a name; uri
    /// ("/" and the name), description (the name) and the lists are filled in where they are not
    /// set; an id is not sent.
    ///
    /// The callback is called once: OK / NONE when the registry holds the entry; ERROR with
    /// SERVICE_NAME_MISSING, OTHER (a text is not valid UTF-8), SERVICE_REGISTRY_ERROR when the
    /// registry refused or the retries are used up, or DELEGATOR_NOT_INITIATED while the context's
    /// deinit() runs. With retries unlimited (the default) an unreachable registry is no error: the
    /// callback waits until it can be reached. An endpoint to which no request can ever be sent
    /// (port 0, or a host that is no host name or address) is an error at once.
    virtual UnregisterHandle registerServiceAtRegistry(
        const common::ServiceInfo& registry, const std::shared_ptr<common::ServiceCreate>& service,
        ResponseCallback callback) = 0;

    /// Registers each service of the set as registerServiceAtRegistry() does, and calls the
    /// callback once for each with the caller's own object. An empty set does nothing. The handles
    /// stand under the caller's own objects too.
    virtual std::map<std::shared_ptr<common::ServiceModel>, UnregisterHandle>
    registerServicesAtRegistry(const common::ServiceInfo& registry, const ServiceSet& services,
                               ServiceCallback callback) = 0;

    /// Registers a service and blocks, without limit, until the outcome is there.
    virtual SyncOrvRegistrationResponse registerServiceAtRegistry(
        const common::ServiceInfo& registry,
        const std::shared_ptr<common::ServiceCreate>& service) = 0;

    /// Registers each service of the set and blocks, without limit, until all outcomes are there:
    /// whether all succeeded, and the outcome of each under the caller's own object.
    /// The set holds 1 to 255 services: with none, or with more, it never returns.
    virtual std::pair<bool,
                      std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse>>
    registerServicesAtRegistry(const common::ServiceInfo& registry, const ServiceSet& services) = 0;

    /// Withdraws every service that the client holds now, and calls the callback once for each with
    /// the client's own description of it. Without services it does nothing.
    virtual void unregisterAllServicesFromRegistry(ServiceCallback callback) = 0;

    /// Withdraws every service that the client holds now and blocks until all answered or the
    /// context's unregister time-out has passed: whether all answered OK in time, and the outcomes
    /// that came, under the client's own descriptions. Without services, or with more than 255, it
    /// takes the whole time-out and answers false (with a time-out of zero it never returns).
    virtual std::pair<bool,
                      std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse>>
    unregisterAllServicesFromRegistry() = 0;

    /// A description of the service at `serviceInfo` (an endpoint of your own), ready to be
    /// registered: its name, host, port and version, and the uri made of "/", or of the prefix if
    /// the context says so, and the name.
    virtual common::ServiceCreate getServiceCreate(const common::ServiceInfo& serviceInfo) = 0;

    /// As getServiceCreate(); a new object with each call.
    virtual std::shared_ptr<common::ServiceCreate> getSharedServiceCreate(
        const common::ServiceInfo& serviceInfo) = 0;

    /// Sets the one status listener; the one before is dropped. Returns a remover: it removes
    /// whatever listener is set when it is called, and does nothing when the client is gone; as
    /// with an UnregisterHandle, the end of the client waits for calls that are under way.
    /// Notifications queued before still reach the listener of their time.
    virtual std::function<void()> addServiceRegisterStatusListener(StatusListener listener) = 0;
};

}  // namespace orvx::serviceregistryclient
