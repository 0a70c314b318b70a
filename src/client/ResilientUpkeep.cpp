// With resilience: the registrations and their entries, what is due when, user code that is to run,
// start and stop. Entered by the user's threads and the timer's. An entry stands in `dues_` at all
// times, so planning needs no memory; the timer has a task for the first of them.

#include "Memory.h"
#include "RegistrationTable.h"
#include "ResilientRecords.h"

#include <algorithm>
#include <thread>

namespace orvx::serviceregistryclient {

namespace {

/// Whether this thread is inside user code of this client.
thread_local const void* calling = nullptr;

}  // namespace

OrvServiceRegistryClient::ResilientUpkeep::ResilientUpkeep(OrvServiceRegistryClient& client)
    : Upkeep(client) {}
OrvServiceRegistryClient::ResilientUpkeep::~ResilientUpkeep() = default;

IOrvServiceRegistryClient::UnregisterHandle OrvServiceRegistryClient::ResilientUpkeep::announce(
    const common::ServiceInfo& registry, const std::shared_ptr<RequestContainer>& request,
    ResponseCallback callback) {
    auto waiting = std::make_unique<Waiting>();
    if (callback) {
        waiting->registered = std::make_shared<const ResponseCallback>(std::move(callback));
    }
    UnregisterHandle handle;
    const utility::MutexLock lock(client_.mutex);
    request->serviceInfo = client_.mapRegistryCallback->share(registry);
    Entry& entry = entryLocked(*request);
    try {
        entry.members.reserve(entry.members.size() + 1);
        const std::uint64_t id = client_.lastRequestId + 1;
        handle = client_.handleOf(id);  // first: what is registered has one
        Member& member = *registrations_.try_emplace(id).first;
        client_.lastRequestId = id;
        member.second.request = request;
        member.second.entry = &entry;
        member.second.facts.since = now();
        member.second.waiting = std::move(waiting);
        entry.members.push_back(&member);
    } catch (...) {
        reconcileLocked(entry);
        throw;
    }
    wantedHasChangedLocked(entry);
    return handle;
}

/// A new one has no members yet.
OrvServiceRegistryClient::ResilientUpkeep::Entry&
OrvServiceRegistryClient::ResilientUpkeep::entryLocked(const RequestContainer& request) {
    std::unique_ptr<Endpoint>& endpoint = endpoints_[request.serviceInfo->getKey()];
    if (!endpoint) {
        endpoint = std::make_unique<Endpoint>();
        endpoint->info = request.serviceInfo;
    }
    const auto found = endpoint->byPath.find(request.uri);
    if (found != endpoint->byPath.end()) {
        return *found->second;
    }
    const auto entry = std::make_shared<Entry>(*endpoint);
    entry->due = dues_.emplace(never, entry.get()).first;
    try {
        entry->path = endpoint->byPath.emplace(request.uri, entry).first;
    } catch (...) {
        dues_.erase(entry->due);
        throw;
    }
    return *entry;
}

void OrvServiceRegistryClient::ResilientUpkeep::eraseLocked(Entry& entry) {
    const auto kept = entry.shared_from_this();
    entry.out = Request::None;
    forgetUuidLocked(entry);
    dues_.erase(entry.due);
    Entries& byPath = entry.endpoint.byPath;
    if (entry.isMerged) {
        for (auto path = byPath.begin(); path != byPath.end();) {
            path = path->second == kept ? byPath.erase(path) : std::next(path);
        }
    } else if (entry.path != byPath.end()) {
        byPath.erase(entry.path);
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::forgetUuidLocked(Entry& entry) {
    const auto found = entry.endpoint.byUuid.find(entry.uuid);
    if (found != entry.endpoint.byUuid.end() && found->get() == &entry) {
        entry.endpoint.byUuid.erase(found);
    }
    entry.uuid.clear();
}

void OrvServiceRegistryClient::ResilientUpkeep::planLocked(Entry& entry, Milliseconds due) {
    auto node = dues_.extract(entry.due);
    node.value().first = due;
    entry.due = dues_.insert(std::move(node)).position;
    const Milliseconds told = due == never ? RegistrationFacts::none : due;
    for (Member* const member : entry.members) {
        member->second.facts.due = entry.out == Request::None ? told : RegistrationFacts::none;
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::armLocked() {
    Milliseconds first = dues_.empty() ? never : dues_.begin()->first;
    if (!deadlines_.empty()) {
        first = std::min(first, deadlines_.begin()->first);
    }
    if (first < armed_) {
        client_.timer.addTask(first - now(), [this, first] { alarm(first); });
        armed_ = first;
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::alarm(Milliseconds time) {
    client_.whenThereIsMemory([&] {
        const utility::MutexLock lock(client_.mutex);
        if (!client_.initiated) {
            return;
        }
        if (armed_ == time) {
            armed_ = never;
        }
        runDueLocked(now());
        armLocked();
    });
}

void OrvServiceRegistryClient::ResilientUpkeep::runDueLocked(Milliseconds time) {
    answerLateWithdrawalsLocked(time);
    // Those that are due again at once wait for the next alarm.
    std::size_t left = dues_.size();
    while (left-- > 0 && !dues_.empty() && dues_.begin()->first <= time) {
        Entry& entry = *dues_.begin()->second;
        if (entry.out == Request::Head) {
            giveUpHeadLocked(entry);
        }
        reconcileLocked(entry);
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::start() {
    const utility::MutexLock lock(client_.mutex);
    for (auto& [key, endpoint] : endpoints_) {
        endpoint->isAnswering = true;
        endpoint->lookingUntil = Milliseconds::min();
        lookAtAllLocked(*endpoint, nullptr);
    }
    armLocked();
}

void OrvServiceRegistryClient::ResilientUpkeep::stop() {
    std::vector<std::weak_ptr<Wait>> waits;
    while (!answerAll()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    {
        const utility::MutexLock lock(client_.mutex);
        waits.swap(waits_);
    }
    runTasks();
    endWaits(waits);
}

/// False when there is no memory. A registration that is answered ERROR here is over: what came
/// into being is deleted after the next start.
bool OrvServiceRegistryClient::ResilientUpkeep::answerAll() {
    const utility::MutexLock lock(client_.mutex);
    armed_ = never;
    deadlines_.clear();
    try {
        for (Member& member : registrations_) {
            giveUpLocked(member, OrvRegistrationResponse::DELEGATOR_NOT_INITIATED, nullptr);
            answerWithdrawalsLocked(member, OrvRegistrationResponse::ERROR,
                                    OrvRegistrationResponse::DELEGATOR_NOT_INITIATED, nullptr);
        }
        for (const auto& [due, entry] : dues_) {
            if (entry->out == Request::Put) {
                entry->known = Known::Unknown;
            }
            entry->out = Request::None;
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

/// Nobody waits any more then.
void OrvServiceRegistryClient::ResilientUpkeep::answerLocked(
    Answer& answer, OrvRegistrationResponse::Status status,
    OrvRegistrationResponse::ErrorCode reason, const HttpResponse* response) {
    if (!answer) {
        return;
    }
    auto outcome = std::make_shared<OrvRegistrationResponse>(status, reason);
    if (response != nullptr) {
        outcome->httpResponse = std::make_shared<HttpResponse>(*response);
    }
    Tasks tasks;
    tasks.emplace_back([answer, outcome] { (*answer)(*outcome); });
    tellLocked(std::move(tasks));
    answer.reset();  // the task has a share
}

void OrvServiceRegistryClient::ResilientUpkeep::notifyLocked(Member& member, bool registered) {
    if (member.second.notified != registered) {
        tellLocked(client_.notificationLocked(member.second.request->serviceCreate, registered));
        member.second.notified = registered;
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::tell(std::function<void()> task) {
    Tasks tasks;
    tasks.push_back(std::move(task));
    const utility::MutexLock lock(client_.mutex);
    tellLocked(std::move(tasks));
}

void OrvServiceRegistryClient::ResilientUpkeep::tellLocked(Tasks tasks) {
    lockIsHeld();
    Tasks runs;
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        runs.emplace_back([this] { runFirstTask(); });
    }
    tasks_.splice(tasks_.end(), tasks);
    client_.callbackExecutor.add(std::move(runs));
}

// The client may be gone when the task returns.
bool OrvServiceRegistryClient::ResilientUpkeep::runFirstTask() {
    Tasks first;
    {
        const utility::MutexLock lock(client_.mutex);
        if (tasks_.empty()) {
            return false;
        }
        first.splice(first.end(), tasks_, tasks_.begin());
    }
    const void* const before = std::exchange(calling, this);
    try {
        first.front()();
    } catch (...) {
        // It ends there, and harms nothing.
    }
    first.clear();
    calling = before;
    return true;
}

void OrvServiceRegistryClient::ResilientUpkeep::runTasks() {
    while (runFirstTask()) {
    }
}

bool OrvServiceRegistryClient::ResilientUpkeep::isInsideUserCode() const {
    return calling == this;
}

std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>>
OrvServiceRegistryClient::ResilientUpkeep::descriptions() {
    std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> descriptions;
    const utility::MutexLock lock(client_.mutex);
    for (const auto& [id, registration] : registrations_) {
        descriptions.emplace_hint(descriptions.end(), id, registration.request->serviceCreate);
    }
    return descriptions;
}

std::vector<RegistrationStatus> OrvServiceRegistryClient::ResilientUpkeep::statuses() {
    std::vector<RegistrationStatus> statuses;
    const utility::MutexLock lock(client_.mutex);
    const Clocks clocks = readClocks();
    statuses.reserve(registrations_.size());
    for (const auto& [id, registration] : registrations_) {
        statuses.push_back(statusLocked(id, *registration.request, registration.facts, clocks));
    }
    return statuses;
}

}  // namespace orvx::serviceregistryclient
