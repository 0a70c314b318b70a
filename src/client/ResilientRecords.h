#pragma once

#include "ResilientUpkeep.h"

namespace orvx::serviceregistryclient {

/// What is answered later. Absent where nobody waits.
struct OrvServiceRegistryClient::ResilientUpkeep::Waiting {
    Answer registered;
    /// And until when they wait.
    std::vector<std::pair<Milliseconds, Answer>> withdrawals;
    /// Of the first registration.
    std::uint16_t retries = 0;
};

/// One managed registration.
struct OrvServiceRegistryClient::ResilientUpkeep::Registration {
    std::shared_ptr<RequestContainer> request;
    Entry* entry = nullptr;
    std::unique_ptr<Waiting> waiting;
    RegistrationFacts facts;
    /// The registration has been answered.
    bool answered = false;
    /// Not wanted any more: it was withdrawn or given up.
    bool withdrawn = false;
    /// What the status listener was told last.
    bool notified = false;
};

/// What a registry holds under one path, and what it is to hold.
struct OrvServiceRegistryClient::ResilientUpkeep::Entry : std::enable_shared_from_this<Entry> {
    explicit Entry(Endpoint& owner);

    Endpoint& endpoint;
    /// By ascending request id. None: it was left behind, and is to be deleted.
    std::vector<Member*> members;
    /// Where it stands in its endpoint.
    Entries::iterator path;
    /// While it is present, and while that is unknown, as far as it was learnt.
    std::string uuid;
    Dues::iterator due;
    /// While requests fail.
    std::unique_ptr<communication::QunaConnectionBackoffSequence> backoff;
    /// Of the last Retry-After.
    Milliseconds notBefore = Milliseconds::min();
    /// The registration whose description the registry holds; 0 where that is not known.
    std::uint64_t held = 0;
    /// The registration whose description the PUT that is out carries.
    std::uint64_t sent = 0;
    /// Of the last request: answers to earlier ones come too late.
    std::uint32_t number = 0;
    Known known = Known::Absent;
    Request out = Request::None;
    /// Other paths lead here too.
    bool isMerged = false;
    /// All entries were looked at while its check was out: where that is not answered, it is looked
    /// at again soon.
    bool isToLookAgain = false;
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

/// A registry.
struct OrvServiceRegistryClient::ResilientUpkeep::Endpoint {
    /// Of the first registration there.
    std::shared_ptr<const common::ServiceInfo> info;
    /// Several paths may lead to one entry.
    Entries byPath;
    /// Those that have a uuid.
    std::set<std::shared_ptr<Entry>, ByUuid> byUuid;
    /// All entries are looked at until then already.
    Milliseconds lookingUntil = Milliseconds::min();
    /// How long the last look at all holds off the next one, beyond the spread.
    Milliseconds lookingPause{0};
    /// When all entries were looked at last because it answered again.
    Milliseconds answeringSince = Milliseconds::min();
    bool isAnswering = true;
};

inline OrvServiceRegistryClient::ResilientUpkeep::Entry::Entry(Endpoint& owner)
    : endpoint(owner), path(owner.byPath.end()) {}

/// For what the library's threads do under the lock: a step that throws std::bad_alloc is done
/// again. Does nothing when the answer is to another request than the last one.
template <typename Step>
void OrvServiceRegistryClient::ResilientUpkeep::handle(const std::shared_ptr<Entry>& entry,
                                                       std::uint32_t number,
                                                       const HttpResponse& response,
                                                       const Step& step) {
    client_.whenThereIsMemory([&] {
        const utility::MutexLock lock(client_.mutex);
        if (!client_.initiated) {
            return;
        }
        noteAnswerLocked(*entry, response);
        if (entry->number == number && entry->out != Request::None) {
            step();
        }
    });
    client_.whenThereIsMemory([&] {
        const utility::MutexLock lock(client_.mutex);
        if (client_.initiated) {
            armLocked();
        }
    });
}

}  // namespace orvx::serviceregistryclient
