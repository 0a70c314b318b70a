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
/// deinit() or its destruction.
///
/// Thread-safety: every operation may be called from any thread, several at once. Asynchronous
/// operations never wait for the network and may be called from callbacks. Synchronous operations
/// block and must not be called from a callback or from the listener, because the answer that they
/// wait for is queued after the calling callback.
///
/// Callbacks and the status listener run one after another on the client's callback thread
/// ("ORVX_SRCBExec"), in the order in which their outcomes arose. They never run on the caller's
/// thread and never under a lock of the client. A callback that blocks delays the following ones.
/// An exception of a callback is dropped. An empty callback means that the outcome is not wanted.
/// After the context's deinit() no callback is called.
///
/// The callback thread blocks all signals except those of a crash. A child that a callback makes
/// with fork() gets the mask of the thread that called init(). A program that is started with
/// posix_spawn(), vfork(), system() or popen() inherits the blocked signals, including SIGTERM,
/// unless the callback calls pthread_sigmask() before.
///
/// Ownership: descriptions are copied by a registration; the caller's object is never changed.
/// Callbacks are copied, and destroyed after they were called or dropped.
///
/// This description applies without resilience; OrvServiceRegistryContext::enableResilience()
/// documents the differences.
///
/// Errors: an outcome is an OrvRegistrationResponse. Operations throw std::bad_alloc only.
///
/// The order of the virtual operations is part of the binary interface.
class ORVX_EXPORT IOrvServiceRegistryClient {
  public:
    /// Receives the outcome of one operation.
    using ResponseCallback = std::function<void(OrvRegistrationResponse)>;
    /// Receives the outcome for one of several services.
    using ServiceCallback =
        std::function<void(std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse)>;
    /// Withdraws the service that the handle was made for, and reports to the callback: OK / NONE
    /// if the registration was refused at once or the service is withdrawn already; ERROR /
    /// SERVICE_NOT_FOUND while the registry holds no entry (the answer to the registration, or to
    /// an automatic re-registration, is still outstanding); ERROR / SERVICE_REGISTRY_ERROR if the
    /// registry's answer is not 200. A handle may be called at any time, from any thread. After the
    /// context was de-initialised or destroyed it does nothing, and the callback is never called.
    /// The destruction of the client waits for calls that are in progress.
    using UnregisterHandle = std::function<void(ResponseCallback)>;
    /// Receives a description and whether the service has just become registered (true) or has just
    /// stopped being registered (false). The description is the client's own: it may be read at any
    /// time and from any thread, but must not be changed.
    using StatusListener = std::function<void(std::shared_ptr<const common::ServiceModel>, bool)>;
    /// Descriptions to be registered together. The same object counts once.
    using ServiceSet = std::unordered_set<std::shared_ptr<common::ServiceCreate>>;

    virtual ~IOrvServiceRegistryClient();

    /// Registers a service at the registry and keeps it registered until it is withdrawn.
    ///
    /// `registry` is the registry's endpoint: its host and port. The description needs a name. The
    /// uri ("/" and the name), the description text (the name) and the lists are filled in if they
    /// are not set. An id is not sent.
    ///
    /// The callback is called once. OK / NONE: the registry holds the entry. ERROR with
    /// SERVICE_NAME_MISSING: the description has no name. ERROR with OTHER: a text is not valid
    /// UTF-8. ERROR with SERVICE_REGISTRY_ERROR: the registry refused, or no retry is left. ERROR
    /// with DELEGATOR_NOT_INITIATED: the context's deinit() is running. With unlimited retries (the
    /// default) an unreachable registry is no error: the callback is called when the registry has
    /// been reached. An endpoint to which no request can be sent (port 0, or a host that is no host
    /// name or address) is an error at once.
    virtual UnregisterHandle registerServiceAtRegistry(
        const common::ServiceInfo& registry, const std::shared_ptr<common::ServiceCreate>& service,
        ResponseCallback callback) = 0;

    /// Registers each service of the set as registerServiceAtRegistry() does, and calls the
    /// callback once for each service, with the caller's own object. An empty set does nothing. The
    /// returned handles have the caller's own objects as keys.
    virtual std::map<std::shared_ptr<common::ServiceModel>, UnregisterHandle>
    registerServicesAtRegistry(const common::ServiceInfo& registry, const ServiceSet& services,
                               ServiceCallback callback) = 0;

    /// Registers a service and blocks, without limit, until the outcome is known.
    virtual SyncOrvRegistrationResponse registerServiceAtRegistry(
        const common::ServiceInfo& registry,
        const std::shared_ptr<common::ServiceCreate>& service) = 0;

    /// Registers each service of the set and blocks, without limit, until all outcomes are known.
    /// Returns whether all succeeded, and each outcome by the caller's own object.
    /// The set must contain 1 to 255 services: otherwise the call never returns.
    virtual std::pair<bool,
                      std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse>>
    registerServicesAtRegistry(const common::ServiceInfo& registry, const ServiceSet& services) = 0;

    /// Withdraws every service that the client holds now, and calls the callback once for each
    /// service, with the client's own description. Without services it does nothing.
    virtual void unregisterAllServicesFromRegistry(ServiceCallback callback) = 0;

    /// Withdraws every service that the client holds now. Blocks until all are answered or the
    /// context's unregister time-out has passed. Returns whether all were answered OK in time, and
    /// the outcomes that came, by the client's own descriptions. Without services, or with more
    /// than 255, it takes the whole time-out and returns false; with a time-out of zero it never
    /// returns then.
    virtual std::pair<bool,
                      std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse>>
    unregisterAllServicesFromRegistry() = 0;

    /// Builds a description of the service at `serviceInfo` (an endpoint of your own), ready to be
    /// registered. It contains name, host, port and version, and the uri: "/", or the prefix if the
    /// context is set to use it, followed by the name.
    virtual common::ServiceCreate getServiceCreate(const common::ServiceInfo& serviceInfo) = 0;

    /// As getServiceCreate(); makes a new object with each call.
    virtual std::shared_ptr<common::ServiceCreate> getSharedServiceCreate(
        const common::ServiceInfo& serviceInfo) = 0;

    /// Sets the only status listener; an earlier one is dropped. Returns a remover, which removes
    /// the listener that is set when it is called. The remover does nothing when the client is
    /// gone; the destruction of the client waits for calls that are in progress. Notifications that
    /// are queued already are still delivered to the listener that was set when they were queued.
    virtual std::function<void()> addServiceRegisterStatusListener(StatusListener listener) = 0;
};

}  // namespace orvx::serviceregistryclient
