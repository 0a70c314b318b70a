#pragma once

#include "Upkeep.h"

#include <orvx/communication/QunaConnectionBackoffSequence.h>

#include <set>

namespace orvx::serviceregistryclient {

/// How registrations are kept when resilience is on. For each entry (what a registry holds under
/// one path) it knows what is wanted there and what is known to be there, and reconcile() picks the
/// one next request from both. Whatever happens changes what is known or wanted, and reconciles. At
/// most one PUT or DELETE of an entry is out at any time, so the registry sees them in order.
///
/// Where to find what, in the order of the declarations below:
///   ResilientUpkeep.cpp      registrations, entries, what is due, start and stop
///   ResilientRequests.cpp    which request is next, and how it is sent
///   ResilientAnnouncing.cpp  answers to a PUT; two entries that turn out to be one
///   ResilientCheck.cpp       answers to a HEAD, its time-out; a registry that restarted
///   ResilientWithdrawal.cpp  withdrawal, answers to a DELETE
///   ResilientFailure.cpp     which failures pass, and when to try again
///   ResilientBlocking.cpp    the blocking forms
///   ResilientRecords.h       what is kept for a registration, an entry and an endpoint
///
/// | known   | wanted      | next request                                                     |
/// |---------|-------------|------------------------------------------------------------------|
/// | absent  | nothing     | none: the entry is gone                                          |
/// | unknown | nothing     | PUT, to learn the uuid: the answer to the last PUT was lost      |
/// | present | nothing     | DELETE                                                           |
/// | present | what it has | HEAD after the check interval                                    |
/// | any     | else        | PUT                                                              |
///
/// Threads: as for the client. The lock is the client's; requests are submitted under it, which
/// never waits and never calls a handler, so that their order is that of the decisions.
class OrvServiceRegistryClient::ResilientUpkeep final : public Upkeep {
  public:
    using Milliseconds = std::chrono::milliseconds;

    /// The longest Retry-After that is followed. Longer ones come from maintenance pages; a
    /// registry that is back earlier would be without its services meanwhile.
    static constexpr Milliseconds longestRetryAfter{60000};
    /// The pace at which all entries of a registry that restarted are looked at: 500 each second
    /// and client, of which each takes a HEAD and a PUT. 1,000 services are back within 2 s.
    static constexpr Milliseconds spreadPerEntry{2};
    /// They take this long at least, so that many clients with few services do not come at once.
    static constexpr Milliseconds shortestSpread{1000};
    /// Between two requests of one entry, whatever the options say.
    static constexpr Milliseconds shortestPause{1};

    explicit ResilientUpkeep(OrvServiceRegistryClient& client);
    ~ResilientUpkeep() override;

    UnregisterHandle announce(const common::ServiceInfo& registry,
                              const std::shared_ptr<RequestContainer>& request,
                              ResponseCallback callback) override;
    void withdraw(std::uint64_t id, const ResponseCallback& callback) override;
    void start() override;
    void stop() override;
    void tell(std::function<void()> task) override;
    void tellLocked(Tasks tasks) override;
    std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> descriptions() override;
    std::vector<RegistrationStatus> statuses() override;
    std::vector<std::string> withdrawWithin(Milliseconds bound) override;
    SyncOrvRegistrationResponse registerAndWait(
        const common::ServiceInfo& registry,
        const std::shared_ptr<common::ServiceCreate>& service) override;
    std::pair<bool, SyncServiceResponses> registerAllAndWait(const common::ServiceInfo& registry,
                                                             const ServiceSet& services) override;
    std::pair<bool, ServiceResponses> withdrawAllAndWait() override;

    /// From the value of a Retry-After header, seconds or a date, to the delay that it asks for;
    /// zero for one that is neither.
    static Milliseconds delayOf(const std::string& retryAfter,
                                std::chrono::system_clock::time_point now);
    /// The last segment of a location, one "/" behind it aside; empty when there is none.
    static std::string uuidOf(const std::string& location);

  private:
    struct Entry;
    struct Endpoint;
    struct Registration;
    struct Waiting;
    class Wait;
    using HttpResponse = communication::HttpResponse;
    using Registrations = std::map<std::uint64_t, Registration>;
    using Member = std::pair<const std::uint64_t, Registration>;
    struct ByUuid;
    struct ByText {
        template <typename Text>
        bool operator()(const Text& one, const Text& other) const {
            return *one < *other;
        }
    };
    /// By path.
    using Entries = std::map<std::shared_ptr<const std::string>, std::shared_ptr<Entry>, ByText>;
    /// By what is due first.
    using Dues = std::set<std::pair<Milliseconds, Entry*>>;

    /// Shared, so that under the lock pointers are copied and destroyed, and no user code. Null
    /// where nobody waits.
    using Answer = std::shared_ptr<const ResponseCallback>;

    static constexpr Milliseconds never = Milliseconds::max();

    enum class Known : std::uint8_t { Absent, Unknown, Present };
    enum class Request : std::uint8_t { None, Put, Head, Delete };

    // ResilientUpkeep.cpp
    Entry& entryLocked(const RequestContainer& request) ORVX_REQUIRES(client_.mutex);
    void eraseLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);
    void forgetUuidLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);
    void planLocked(Entry& entry, Milliseconds due) ORVX_REQUIRES(client_.mutex);
    void armLocked() ORVX_REQUIRES(client_.mutex);
    bool answerAll() ORVX_EXCLUDES(client_.mutex);
    void alarm(Milliseconds time) ORVX_EXCLUDES(client_.mutex);
    void runDueLocked(Milliseconds now) ORVX_REQUIRES(client_.mutex);
    void answerLocked(Answer& answer, OrvRegistrationResponse::Status status,
                      OrvRegistrationResponse::ErrorCode reason, const HttpResponse* response)
        ORVX_REQUIRES(client_.mutex);
    void notifyLocked(Member& member, bool registered) ORVX_REQUIRES(client_.mutex);
    void runTasks() ORVX_EXCLUDES(client_.mutex);
    bool isInsideUserCode() const;
    bool runFirstTask() ORVX_EXCLUDES(client_.mutex);
    template <typename Step>
    void handle(const std::shared_ptr<Entry>& entry, std::uint32_t number,
                const HttpResponse& response, const Step& step) ORVX_EXCLUDES(client_.mutex);

    // ResilientRequests.cpp
    void wantedHasChangedLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);
    void reconcileLocked(Entry& entry, const HttpResponse* reason = nullptr)
        ORVX_REQUIRES(client_.mutex);
    Request nextRequest(const Entry& entry) const;
    void sendLocked(Entry& entry, Request request) ORVX_REQUIRES(client_.mutex);
    static Member* wanted(const Entry& entry);

    // ResilientAnnouncing.cpp
    void handlePut(const std::shared_ptr<Entry>& entry, std::uint32_t number,
                   const HttpResponse& response) ORVX_EXCLUDES(client_.mutex);
    void recordEntryLocked(Entry& entry, const std::string& uuid, const std::string& location,
                           const HttpResponse& response) ORVX_REQUIRES(client_.mutex);
    void leaveBehindLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);
    void mergeLocked(Entry& entry, Entry& into) ORVX_REQUIRES(client_.mutex);
    void handlePutFailureLocked(Entry& entry, const HttpResponse& response, bool isRefusal)
        ORVX_REQUIRES(client_.mutex);
    void giveUpLocked(Member& member, OrvRegistrationResponse::ErrorCode reason,
                      const HttpResponse* response) ORVX_REQUIRES(client_.mutex);

    // ResilientCheck.cpp
    void handleHead(const std::shared_ptr<Entry>& entry, std::uint32_t number,
                    const HttpResponse& response) ORVX_EXCLUDES(client_.mutex);
    void markLostLocked(Entry& entry, const HttpResponse& response) ORVX_REQUIRES(client_.mutex);
    void giveUpHeadLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);
    void noteAnswerLocked(Entry& entry, const HttpResponse& response) ORVX_REQUIRES(client_.mutex);
    void lookAtAllLocked(Endpoint& endpoint, const Entry* except) ORVX_REQUIRES(client_.mutex);
    Milliseconds dueAfterNoAnswerLocked(const Entry& entry) const ORVX_REQUIRES(client_.mutex);
    Milliseconds checkInterval() const;
    Milliseconds headTimeout() const;
    static Milliseconds randomPartOf(Milliseconds duration);

    // ResilientWithdrawal.cpp
    void withdrawLocked(Member& member, Answer answer) ORVX_REQUIRES(client_.mutex);
    void handleDelete(const std::shared_ptr<Entry>& entry, std::uint32_t number,
                      const HttpResponse& response) ORVX_EXCLUDES(client_.mutex);
    void answerWithdrawalsLocked(Member& member, OrvRegistrationResponse::Status status,
                                 OrvRegistrationResponse::ErrorCode reason,
                                 const HttpResponse* response) ORVX_REQUIRES(client_.mutex);
    void answerLateWithdrawalsLocked(Milliseconds now) ORVX_REQUIRES(client_.mutex);
    void removeWithdrawnLocked(Entry& entry, const HttpResponse* reason)
        ORVX_REQUIRES(client_.mutex);

    // ResilientFailure.cpp
    using Upkeep::failLocked;
    void failLocked(Entry& entry, const char* method, const HttpResponse& response)
        ORVX_REQUIRES(client_.mutex);
    bool isPassing(const HttpResponse& response) const;
    static bool mayHaveHappened(const HttpResponse& response);
    Milliseconds backOffLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);

    // ResilientBlocking.cpp
    std::shared_ptr<Wait> beginWait(OrvRegistrationResponse::ErrorCode& reason)
        ORVX_EXCLUDES(client_.mutex);
    std::function<OrvRegistrationResponse()> unregisterAndWait(UnregisterHandle handle);
    static void endWaits(const std::vector<std::weak_ptr<Wait>>& waits);

    Registrations registrations_ ORVX_GUARDED_BY(client_.mutex);
    /// By ServiceInfo::getKey(); kept until the client's end.
    std::map<std::string, std::unique_ptr<Endpoint>> endpoints_ ORVX_GUARDED_BY(client_.mutex);
    Dues dues_ ORVX_GUARDED_BY(client_.mutex);
    /// When waiting withdrawals are told that they take too long, and their request ids.
    std::multimap<Milliseconds, std::uint64_t> deadlines_ ORVX_GUARDED_BY(client_.mutex);
    /// The earliest time for which the timer has a task.
    Milliseconds armed_ ORVX_GUARDED_BY(client_.mutex) = never;
    /// User code that is to run. The executor has a task for each; what is left when it stops runs
    /// on the thread that stops it.
    Tasks tasks_ ORVX_GUARDED_BY(client_.mutex);
    std::vector<std::weak_ptr<Wait>> waits_ ORVX_GUARDED_BY(client_.mutex);
    /// Notified when the last registration has left.
    std::condition_variable empty_;
};

}  // namespace orvx::serviceregistryclient
