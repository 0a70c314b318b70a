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
    std::shared_ptr<RequestContainer> request;
    Entry* entry = nullptr;
    std::unique_ptr<Waiting> waiting;
    RegistrationFacts facts;
    /// Whether the registration callback was answered.
    bool answered = false;
    /// Whether the registration was withdrawn or given up.
    bool withdrawn = false;
    /// The last value that the status listener received.
    bool notified = false;
};

/// The entry that a registry holds under one path, and the registrations that share it.
struct OrvServiceRegistryClient::ResilientUpkeep::Entry : std::enable_shared_from_this<Entry> {
    explicit Entry(Endpoint& owner);

    Endpoint& endpoint;
    /// By ascending request id. Empty: the entry was split off and is to be deleted.
    std::vector<Member*> members;
    /// The position in the endpoint's map.
    Entries::iterator path;
    /// The uuid while the entry is present, or while that is unknown, if the uuid is known.
    std::string uuid;
    Dues::iterator due;
    /// Set while requests fail.
    std::unique_ptr<communication::QunaConnectionBackoffSequence> backoff;
    /// From the last Retry-After.
    Milliseconds notBefore = Milliseconds::min();
    /// The request id whose description the registry holds; 0 if unknown.
    std::uint64_t held = 0;
    /// The request id whose description the outstanding PUT carries.
    std::uint64_t sent = 0;
    /// The number of the last request; answers to earlier ones are ignored.
    std::uint32_t number = 0;
    Known known = Known::Absent;
    Request outstanding = Request::None;
    /// Whether other paths lead to this entry, too.
    bool isMerged = false;
    /// Set if all entries were made due while this entry's check was outstanding: if that check
    /// fails, the next one is due soon.
    bool mustRecheck = false;
};

struct OrvServiceRegistryClient::ResilientUpkeep::ByUuid {
    using is_transparent = void;
    bool operator()(const std::shared_ptr<Entry>& one, const std::shared_ptr<Entry>& other) const {
        return one->uuid < other->uuid;
    }
    bool operator()(const std::shared_ptr<Entry>& one, const std::string& uuid) const {
        return one->uuid < uuid;
    }
    bool operator()(const std::string& uuid, const std::shared_ptr<Entry>& one) const {
        return uuid < one->uuid;
    }
};

/// A registry and its entries.
struct OrvServiceRegistryClient::ResilientUpkeep::Endpoint {
    /// The endpoint of the first registration.
    std::shared_ptr<const common::ServiceInfo> info;
    /// Several paths may lead to one entry.
    Entries byPath;
    /// The entries that have a uuid.
    std::set<std::shared_ptr<Entry>, ByUuid> byUuid;
    /// Until this time all entries are already due or checked.
    Milliseconds checkAllUntil = Milliseconds::min();
    /// The additional pause before all entries may be made due again.
    Milliseconds checkAllPause{0};
    /// The last time that all entries were made due because the registry answered again.
    Milliseconds lastRecovery = Milliseconds::min();
    bool isAnswering = true;
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
