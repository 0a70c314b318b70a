#pragma once

#include "ResilientUpkeep.h"

namespace orvx::serviceregistryclient {

/// Callbacks that are called later. Absent if there are none.
struct OrvServiceRegistryClient::ResilientUpkeep::Waiting {
    Answer registered;
    /// Each with its deadline.
    std::vector<std::pair<Milliseconds, Answer>> withdrawals;
    /// Retries of the first registration.
    std::uint16_t retries = 0;
};

/// One managed registration.
struct OrvServiceRegistryClient::ResilientUpkeep::Registration {
    std::shared_ptr<RequestContainer> request ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    Entry* entry ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = nullptr;
    std::unique_ptr<Waiting> waiting ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    RegistrationFacts facts ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// Whether the registration callback was answered.
    bool answered ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = false;
    /// Whether the registration was withdrawn or given up.
    bool withdrawn ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = false;
    /// The last value that the status listener received.
    bool notified ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = false;
};

/// The entry that a registry holds under one path, and the registrations that share it.
struct OrvServiceRegistryClient::ResilientUpkeep::Entry : std::enable_shared_from_this<Entry> {
    explicit Entry(Endpoint& owner);

    Endpoint& endpoint ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// By ascending request id. Empty: the entry was split off and is to be deleted.
    std::vector<Member*> members ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// The position in the endpoint's map.
    Entries::iterator path ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// The uuid while the entry is present, or while that is unknown, if the uuid is known.
    std::string uuid ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    Dues::iterator due ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// Set while requests fail.
    std::unique_ptr<communication::QunaConnectionBackoffSequence> backoff
        ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// From the last Retry-After.
    Milliseconds notBefore ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = Milliseconds::min();
    /// The request id whose description the registry holds; 0 if unknown.
    std::uint64_t held ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = 0;
    /// The request id whose description the outstanding PUT carries.
    std::uint64_t sent ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = 0;
    /// The number of the last request; answers to earlier ones are ignored.
    std::uint32_t number ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = 0;
    Known known ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = Known::Absent;
    Request outstanding ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = Request::None;
    /// Set if another path has turned out to lead to this entry since the last request was sent:
    /// the registry may have processed a PUT of the other path after that request.
    bool isOrderUnknown ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = false;
    /// Whether other paths lead to this entry, too.
    bool isMerged ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = false;
    /// Set if all entries were made due while this entry's check was outstanding: if that check
    /// fails, the next one is due soon.
    bool mustRecheck ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = false;
};

struct OrvServiceRegistryClient::ResilientUpkeep::ByUuid {
    using is_transparent = void;
    bool operator()(const std::shared_ptr<Entry>& one, const std::shared_ptr<Entry>& other) const
        ORVX_REQUIRES(ORVX_CLIENT_LOCK) {
        return one->uuid < other->uuid;
    }
    bool operator()(const std::shared_ptr<Entry>& one, const std::string& uuid) const
        ORVX_REQUIRES(ORVX_CLIENT_LOCK) {
        return one->uuid < uuid;
    }
    bool operator()(const std::string& uuid, const std::shared_ptr<Entry>& one) const
        ORVX_REQUIRES(ORVX_CLIENT_LOCK) {
        return uuid < one->uuid;
    }
};

/// A registry and its entries.
struct OrvServiceRegistryClient::ResilientUpkeep::Endpoint {
    /// The endpoint of the first registration.
    std::shared_ptr<const common::ServiceInfo> info ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// Several paths may lead to one entry.
    Entries byPath ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// The entries that have a uuid.
    std::set<std::shared_ptr<Entry>, ByUuid> byUuid ORVX_GUARDED_BY(ORVX_CLIENT_LOCK);
    /// Until this time all entries are already due or checked.
    Milliseconds checkAllUntil ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = Milliseconds::min();
    /// The additional pause before all entries may be made due again.
    Milliseconds checkAllPause ORVX_GUARDED_BY(ORVX_CLIENT_LOCK){0};
    /// The last time that all entries were made due because the registry answered again.
    Milliseconds lastRecovery ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = Milliseconds::min();
    bool isAnswering ORVX_GUARDED_BY(ORVX_CLIENT_LOCK) = true;
};

inline OrvServiceRegistryClient::ResilientUpkeep::Entry::Entry(Endpoint& owner)
    : endpoint(owner), path(owner.byPath.end()) {}

/// Handles an answer under the lock; repeats the step if it throws std::bad_alloc. Ignores an
/// answer that is not to the entry's last request.
template <typename Step>
void OrvServiceRegistryClient::ResilientUpkeep::handle(const std::shared_ptr<Entry>& entry,
                                                       std::uint32_t number,
                                                       const HttpResponse& response,
                                                       const Step& step) {
    client_.retryOnBadAlloc([&] {
        const utility::MutexLock lock(client_.mutex);
        if (!client_.initiated) {
            return;
        }
        recordReachabilityLocked(*entry, response);
        if (entry->number == number && entry->outstanding != Request::None) {
            step();
        }
    });
    client_.retryOnBadAlloc([&] {
        const utility::MutexLock lock(client_.mutex);
        if (client_.initiated) {
            armLocked();
        }
    });
}

}  // namespace orvx::serviceregistryclient
