#pragma once

#include "Records.h"
#include "RegistrationFacts.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <vector>

namespace orvx::serviceregistryclient {

/// The interface between the client and its two sets of rules for keeping registrations. The
/// implementation is selected when the client is made:
///   BasicUpkeep       resilience is off: the client's own members (BasicUpkeep.h)
///   ResilientUpkeep   resilience is on (ResilientUpkeep.h)
/// Operations are called without the client's lock, except those named `...Locked`.
class OrvServiceRegistryClient::Upkeep {
  public:
    using ServiceResponses =
        std::map<std::shared_ptr<common::ServiceModel>, OrvRegistrationResponse>;
    using SyncServiceResponses =
        std::map<std::shared_ptr<common::ServiceModel>, SyncOrvRegistrationResponse>;

    /// The maximum wait of a blocking call. Longer waits would overflow the standard library's
    /// clocks and end at once.
    static constexpr std::chrono::milliseconds kLongestWait = std::chrono::hours(24 * 365 * 10);

    explicit Upkeep(OrvServiceRegistryClient& client) : client_(client) {}
    virtual ~Upkeep() = default;
    Upkeep(const Upkeep&) = delete;
    Upkeep& operator=(const Upkeep&) = delete;

    /// Registers a service whose request is complete.
    virtual UnregisterHandle announce(const common::ServiceInfo& registry,
                                      const std::shared_ptr<RequestContainer>& request,
                                      ResponseCallback callback) = 0;
    virtual void withdraw(std::uint64_t id, const ResponseCallback& callback) = 0;
    /// Called when the client has started.
    virtual void start() = 0;
    /// Called when the client and its threads have stopped.
    virtual void stop() = 0;
    /// Queues user code for the callback executor.
    virtual void queueTask(std::function<void()> task) = 0;
    virtual void queueTasksLocked(Tasks tasks) ORVX_REQUIRES(ORVX_CLIENT_LOCK) = 0;

    /// The description of each registration.
    virtual std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> descriptions() = 0;
    virtual std::vector<RegistrationStatus> statuses() = 0;
    /// Withdraws all registrations. Returns the names of those that are left when the bound has
    /// passed.
    virtual std::vector<std::string> withdrawWithin(std::chrono::milliseconds bound) = 0;

    // The blocking forms. The client's interface calls the asynchronous forms directly.

    virtual SyncOrvRegistrationResponse registerAndWait(
        const common::ServiceInfo& registry,
        const std::shared_ptr<common::ServiceCreate>& service) = 0;
    virtual std::pair<bool, SyncServiceResponses> registerAllAndWait(
        const common::ServiceInfo& registry, const ServiceSet& services) = 0;
    virtual std::pair<bool, ServiceResponses> withdrawAllAndWait() = 0;

    /// Tells clang, inside a lambda, that the function around it holds the lock.
    static void lockIsHeld() ORVX_ANNOTATION(assert_capability(ORVX_CLIENT_LOCK)) {}

    // Reporting of status and events, for both sets of rules: RegistrationFacts.cpp. The client's
    // members call these operations under their lock.

    /// Records that a request about the registration succeeded.
    void succeedLocked(std::uint64_t id, const RequestContainer& request, RegistrationFacts& facts)
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    void failLocked(std::uint64_t id, const RequestContainer& request, RegistrationFacts& facts,
                    std::shared_ptr<const RegistrationFacts::Failure> failure)
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    /// Enters the state, and reports the event if the state has changed.
    void enterLocked(std::uint64_t id, const RequestContainer& request, RegistrationFacts& facts,
                     RegistrationStatus::State state, RegistrationEvent::Kind event)
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);
    void reportLocked(std::uint64_t id, const RequestContainer& request,
                      const RegistrationFacts& facts, RegistrationEvent::Kind event)
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);

    /// A task that reports the event; none if there is no listener.
    Tasks eventLocked(std::uint64_t id, const RequestContainer& request,
                      const RegistrationFacts& facts, RegistrationEvent::Kind event) const
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);

  protected:
    /// The timer's clock and the system's clock at the same moment.
    struct Clocks {
        std::chrono::system_clock::time_point timeOf(std::chrono::milliseconds time) const;
        std::optional<std::chrono::system_clock::time_point> timeUnlessNone(
            std::chrono::milliseconds time) const;

        std::chrono::milliseconds timer;
        std::chrono::time_point<std::chrono::system_clock, std::chrono::milliseconds> system;
    };
    Clocks readClocks() const;
    std::chrono::milliseconds now() const { return client_.timer.now(); }
    RegistrationStatus statusLocked(std::uint64_t id, const RequestContainer& request,
                                    const RegistrationFacts& facts, const Clocks& clocks) const
        ORVX_REQUIRES(ORVX_CLIENT_LOCK);

    OrvServiceRegistryClient& client_;
};

}  // namespace orvx::serviceregistryclient
