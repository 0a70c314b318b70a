// With resilience: registrations and entries, their due times, queued user code, start and stop.
// Entered by the user's threads, the timer's thread and the I/O thread; queued user code runs on
// the callback thread, or in stop(). An entry is always in `dues_`, so changing its due time
// allocates nothing. The timer has a task for the earliest due time.

#include "Memory.h"
#include "RegistrationTable.h"
#include "ResilientRecords.h"

#include <algorithm>
#include <thread>

namespace orvx::serviceregistryclient {

namespace {

/// An object whose user code this thread is running.
struct UserCode {
    const void* upkeep;
    const UserCode* outer;
};

/// User code may end another client, which then runs its own on the same thread.
thread_local const UserCode* innermostUserCode = nullptr;

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
    if (client_.isEnding) {
        if (waiting->registered) {
            refusals_.emplace_back([answer = waiting->registered] {
                (*answer)({OrvRegistrationResponse::ERROR,
                           OrvRegistrationResponse::DELEGATOR_NOT_INITIATED});
            });
        }
        return client_.handleOfRefusedService(request->serviceCreate->getName());
    }
    request->serviceInfo = client_.mapRegistryCallback->share(registry);
    Entry& entry = entryLocked(*request);
    try {
        entry.members.reserve(entry.members.size() + 1);
        const std::uint64_t id = client_.lastRequestId + 1;
        handle = client_.makeHandleFor(id);  // first, so that every registration has a handle
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
    wantedChangedLocked(entry);
    return handle;
}

/// A new entry has no members yet.
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
    entry->due = dues_.emplace(kNever, entry.get()).first;
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
    entry.outstanding = Request::None;
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
    const Milliseconds told = due == kNever ? RegistrationFacts::kNone : due;
    for (Member* const member : entry.members) {
        member->second.facts.due =
            entry.outstanding == Request::None ? told : RegistrationFacts::kNone;
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::armLocked() {
    Milliseconds first = dues_.empty() ? kNever : dues_.begin()->first;
    if (!deadlines_.empty()) {
        first = std::min(first, deadlines_.begin()->first);
    }
    if (first < armed_) {
        client_.timer.addTask(first - now(), [this, first] { alarm(first); });
        armed_ = first;
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::alarm(Milliseconds time) {
    client_.retryOnBadAlloc([&] {
        const utility::MutexLock lock(client_.mutex);
        if (!client_.initiated) {
            return;
        }
        if (armed_ == time) {
            armed_ = kNever;
        }
        runDueLocked(now());
        armLocked();
    });
}

void OrvServiceRegistryClient::ResilientUpkeep::runDueLocked(Milliseconds time) {
    answerLateWithdrawalsLocked(time);
    // Entries that are due again at once wait for the next alarm.
    std::size_t left = dues_.size();
    while (left-- > 0 && !dues_.empty() && dues_.begin()->first <= time) {
        Entry& entry = *dues_.begin()->second;
        if (entry.outstanding == Request::Head) {
            giveUpHeadLocked(entry);
        }
        reconcileLocked(entry);
    }
}

/// Makes the task that wantedChangedLocked() queues if memory runs out.
void OrvServiceRegistryClient::ResilientUpkeep::makeRetryTaskLocked() {
    if (retryTask_.empty()) {
        retryTask_.emplace_back([this] {
            client_.retryOnBadAlloc([&] {
                const utility::MutexLock lock(client_.mutex);
                makeRetryTaskLocked();
            });
            alarm(now());
        });
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::start() {
    const utility::MutexLock lock(client_.mutex);
    makeRetryTaskLocked();
    for (auto& [key, endpoint] : endpoints_) {
        endpoint->isAnswering = true;
        endpoint->checkAllUntil = Milliseconds::min();
        checkAllLocked(*endpoint, nullptr);
    }
    armLocked();
}

void OrvServiceRegistryClient::ResilientUpkeep::stop() {
    std::vector<std::weak_ptr<BlockingCall>> waits;
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

/// Returns false if memory runs out. A registration that is answered ERROR here has ended: an entry
/// that it made is deleted after the next start.
bool OrvServiceRegistryClient::ResilientUpkeep::answerAll() {
    const utility::MutexLock lock(client_.mutex);
    armed_ = kNever;
    deadlines_.clear();
    tasks_.splice(tasks_.end(), refusals_);
    try {
        for (Member& member : registrations_) {
            giveUpLocked(member, OrvRegistrationResponse::DELEGATOR_NOT_INITIATED, nullptr);
            answerWithdrawalsLocked(member, OrvRegistrationResponse::ERROR,
                                    OrvRegistrationResponse::DELEGATOR_NOT_INITIATED, nullptr);
        }
        for (const auto& [due, entry] : dues_) {
            if (entry->outstanding == Request::Put) {
                entry->known = Known::Unknown;
            }
            entry->outstanding = Request::None;
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

/// Queues the answer and clears `answer`.
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
    queueTasksLocked(std::move(tasks));
    answer.reset();  // the task shares it
}

void OrvServiceRegistryClient::ResilientUpkeep::notifyLocked(Member& member, bool registered) {
    if (member.second.notified != registered) {
        queueTasksLocked(
            client_.notificationLocked(member.second.request->serviceCreate, registered));
        member.second.notified = registered;
    }
}

void OrvServiceRegistryClient::ResilientUpkeep::queueTask(std::function<void()> task) {
    Tasks tasks;
    tasks.push_back(std::move(task));
    const utility::MutexLock lock(client_.mutex);
    queueTasksLocked(std::move(tasks));
}

void OrvServiceRegistryClient::ResilientUpkeep::queueTasksLocked(Tasks tasks) {
    Tasks runs;
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        runs.emplace_back([this] { runFirstTask(); });
    }
    tasks_.splice(tasks_.end(), tasks);
    client_.callbackExecutor.add(std::move(runs));
}

// The client may be destroyed inside the task.
bool OrvServiceRegistryClient::ResilientUpkeep::runFirstTask() {
    Tasks first;
    {
        const utility::MutexLock lock(client_.mutex);
        if (tasks_.empty()) {
            return false;
        }
        first.splice(first.end(), tasks_, tasks_.begin());
    }
    const UserCode running{this, innermostUserCode};
    innermostUserCode = &running;
    try {
        first.front()();
    } catch (...) {
        // An exception of user code ends here.
    }
    first.clear();
    innermostUserCode = running.outer;
    return true;
}

/// A callback that calls the client again queues a further task. That one waits for the next start,
/// so that the stop ends.
void OrvServiceRegistryClient::ResilientUpkeep::runTasks() {
    std::size_t left = 0;
    {
        const utility::MutexLock lock(client_.mutex);
        left = tasks_.size();
    }
    while (left-- > 0 && runFirstTask()) {
    }
}

bool OrvServiceRegistryClient::ResilientUpkeep::isInsideUserCode() const {
    const UserCode* code = innermostUserCode;
    while (code != nullptr && code->upkeep != this) {
        code = code->outer;
    }
    return code != nullptr;
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
