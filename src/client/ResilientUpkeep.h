#pragma once

#include "Upkeep.h"

#include <orvx/communication/QunaConnectionBackoffSequence.h>

#include <set>

namespace orvx::serviceregistryclient {

/// Keeps registrations when resilience is on. For each entry (the registry's record under one path)
/// it stores the wanted state and the known state, and reconcileLocked() derives the next request
/// from both. Every event changes the known or the wanted state and reconciles. At most one PUT or
/// DELETE of an entry is outstanding at any time, so the registry receives them in order.
///
/// Files, in the order of the declarations below:
///   ResilientUpkeep.cpp      registrations, entries, due times, start and stop
///   ResilientRequests.cpp    selecting and sending the next request
///   ResilientAnnouncing.cpp  answers to a PUT; two entries that turn out to be the same
///   ResilientCheck.cpp       answers to a HEAD, its time-out; a restarted registry
///   ResilientWithdrawal.cpp  withdrawal, answers to a DELETE
///   ResilientFailure.cpp     transient failures and the delay before the next attempt
///   ResilientBlocking.cpp    the blocking forms
///   ResilientBlockingCall.h  one blocking call
///   ResilientRecords.h       the records of registrations, entries and endpoints
///
/// | known   | wanted      | next request                                                     |
/// |---------|-------------|------------------------------------------------------------------|
/// | absent  | nothing     | none: the entry is gone                                          |
/// | unknown | nothing     | PUT, to learn the uuid: the answer to the last PUT was lost      |
/// | present | nothing     | DELETE                                                           |
/// | present | the same    | HEAD after the check interval                                    |
/// | any     | other       | PUT                                                              |
///
/// Threads: as for the client. The lock is the client's. Requests are submitted under it, which
/// never blocks and never calls a handler, so they are sent in the order of the decisions.
class OrvServiceRegistryClient::ResilientUpkeep final : public Upkeep {
  public:
    using Milliseconds = std::chrono::milliseconds;
    class BlockingCall;

    /// The longest Retry-After that is followed. Longer ones usually come from maintenance pages;
    /// if the registry returned earlier, it would be without its services meanwhile.
    static constexpr Milliseconds kLongestRetryAfter{60000};
    /// The pace at which all entries of a restarted registry are checked: 500 entries in a second
    /// for each client, each with a HEAD and a PUT. 1,000 services are registered again within 2 s.
    static constexpr Milliseconds kSpreadPerEntry{2};
    /// The minimum time for checking all entries, so that many clients with few services do not
    /// send at the same moment.
    static constexpr Milliseconds kShortestSpread{1000};
    /// The minimum of the check interval, the head time-out and the back-off, whatever the options
    /// are.
    static constexpr Milliseconds kShortestPause{1};

    explicit ResilientUpkeep(OrvServiceRegistryClient& client);
    ~ResilientUpkeep() override;

    UnregisterHandle announce(const common::ServiceInfo& registry,
                              const std::shared_ptr<RequestContainer>& request,
                              ResponseCallback callback) override;
    void withdraw(std::uint64_t id, const ResponseCallback& callback) override;
    void start() override;
    void stop() override;
    void queueTask(std::function<void()> task) override;
    void queueTasksLocked(Tasks tasks) ORVX_REQUIRES(ORVX_CLIENT_LOCK) override;
    std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> descriptions() override;
    std::vector<RegistrationStatus> statuses() override;
    std::vector<std::string> withdrawWithin(Milliseconds bound) override;
    SyncOrvRegistrationResponse registerAndWait(
        const common::ServiceInfo& registry,
        const std::shared_ptr<common::ServiceCreate>& service) override;
    std::pair<bool, SyncServiceResponses> registerAllAndWait(const common::ServiceInfo& registry,
                                                             const ServiceSet& services) override;
    std::pair<bool, ServiceResponses> withdrawAllAndWait() override;

    /// The delay that a Retry-After header asks for, in seconds or as a date; zero if the value is
    /// invalid.
    static Milliseconds delayOf(const std::string& retryAfter,
                                std::chrono::system_clock::time_point now);
    /// The last segment of a location's path, ignoring one "/" at the end; empty if there is none.
    static std::string uuidOf(const std::string& location);

  private:
    struct Entry;
    struct Endpoint;
    struct Registration;
    struct Waiting;
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
    /// By due time.
    using Dues = std::set<std::pair<Milliseconds, Entry*>>;

    /// Shared, so that under the lock only pointers are copied and destroyed, and no user code.
    /// Null if there is no callback.
    using Answer = std::shared_ptr<const ResponseCallback>;

    static constexpr Milliseconds kNever = Milliseconds::max();

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
    void makeRetryTaskLocked() ORVX_REQUIRES(client_.mutex);
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
    void wantedChangedLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);
    void reconcileLocked(Entry& entry, const HttpResponse* reason = nullptr)
        ORVX_REQUIRES(client_.mutex);
    Request nextRequest(const Entry& entry) const ORVX_REQUIRES(client_.mutex);
    void sendLocked(Entry& entry, Request request) ORVX_REQUIRES(client_.mutex);
    static Member* latestWanted(const Entry& entry) ORVX_REQUIRES(ORVX_CLIENT_LOCK);

    // ResilientAnnouncing.cpp
    void handlePut(const std::shared_ptr<Entry>& entry, std::uint32_t number,
                   const HttpResponse& response) ORVX_EXCLUDES(client_.mutex);
    void recordEntryLocked(Entry& entry, const std::string& uuid, const std::string& location,
                           const HttpResponse& response) ORVX_REQUIRES(client_.mutex);
    void splitOffOldUuidLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);
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
    void recordReachabilityLocked(Entry& entry, const HttpResponse& response)
        ORVX_REQUIRES(client_.mutex);
    void checkAllLocked(Endpoint& endpoint, const Entry* except) ORVX_REQUIRES(client_.mutex);
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
    bool isTransient(const HttpResponse& response) const;
    static bool mayHaveTakenEffect(const HttpResponse& response);
    Milliseconds backOffLocked(Entry& entry) ORVX_REQUIRES(client_.mutex);

    // ResilientBlocking.cpp
    std::shared_ptr<BlockingCall> beginWait(OrvRegistrationResponse::ErrorCode& reason)
        ORVX_EXCLUDES(client_.mutex);
    std::function<OrvRegistrationResponse()> unregisterAndWait(UnregisterHandle handle);
    static void endWaits(const std::vector<std::weak_ptr<BlockingCall>>& waits);

    Registrations registrations_ ORVX_GUARDED_BY(client_.mutex);
    /// By ServiceInfo::getKey(); kept until the client is destroyed.
    std::map<std::string, std::unique_ptr<Endpoint>> endpoints_ ORVX_GUARDED_BY(client_.mutex);
    Dues dues_ ORVX_GUARDED_BY(client_.mutex);
    /// The deadlines of waiting withdrawals, and their request ids.
    std::set<std::pair<Milliseconds, std::uint64_t>> deadlines_ ORVX_GUARDED_BY(client_.mutex);
    /// The earliest time for which the timer has a task.
    Milliseconds armed_ ORVX_GUARDED_BY(client_.mutex) = kNever;
    /// Queued user code. The executor has a task for each item. Items that are left when the
    /// executor stops run on the thread that stops it; items that these add run after the next
    /// start.
    Tasks tasks_ ORVX_GUARDED_BY(client_.mutex);
    /// Refusals of registrations that came during the withdrawal at the end. They wait for the
    /// stop, because callbacks that register again at once would occupy the callback thread.
    Tasks refusals_ ORVX_GUARDED_BY(client_.mutex);
    /// Runs the entries that are due and arms the timer. Made in advance, so that queueing it
    /// allocates nothing; empty while it is queued.
    Tasks retryTask_ ORVX_GUARDED_BY(client_.mutex);
    std::vector<std::weak_ptr<BlockingCall>> waits_ ORVX_GUARDED_BY(client_.mutex);
    /// Notified when the last registration is removed.
    std::condition_variable empty_;
};

}  // namespace orvx::serviceregistryclient
