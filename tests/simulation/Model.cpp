// The rules, written as simply as possible. One thread. The model must stay simple, because the
// client is compared with it.
#include "Model.h"

#include <algorithm>

namespace orvx::simulation {

namespace {

enum State { REGISTERING = 0, REREGISTERING = 1, REGISTERED = 2, UNREGISTERING = 3 };
enum CheckState { IDLE = 0, TIMEOUT = 1, RESPONDED = 2, PENDING = 3 };

const std::set<int> retryableStatuses{500, 503, 504};
constexpr Milliseconds kLeastBackoff{10};

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

}  // namespace

Told told(const std::string& label, const std::string& outcome, int http) {
    return label + ": " + outcome + " http=" + std::to_string(http);
}

std::size_t Model::registerService(const std::string& name, const std::string& label) {
    const std::string refused = "Service '" + name + "' to unregister is not registered.";
    if (!initiated_) {
        tell(label, "ERROR/DELEGATOR_NOT_INITIATED", -1);
        handles_.push_back({0, refused});
    } else if (name.empty()) {
        log(0, "Service is missing name");
        tell(label, "ERROR/SERVICE_NAME_MISSING", -1);
        handles_.push_back({0, "Unnamed service is not registered. Cannot be unregistered."});
    } else if (name.find('\xff') != std::string::npos) {
        log(0, "could not create content to send to registry");
        tell(label, "ERROR/OTHER", -1);
        handles_.push_back({0, refused});
    } else {
        const auto request = std::make_shared<Description>();
        request->name = name;
        request->uri = request->requestUri = "/" + name;
        request->body = R"({"description":")" + name + R"(","name":")" + name +
                        R"(","privileges":[],"serviceCategories":[],"uri":"/)" + name +
                        R"(","versions":[]})";
        const auto record = std::make_shared<Record>();
        record->request = request;
        record->registerCallbacks = {label};
        table_[++lastId_] = record;
        sendPut(lastId_, request);
        handles_.push_back({lastId_, ""});
    }
    return handles_.size() - 1;
}

void Model::withdraw(std::size_t handle, const std::string& label) {
    const Handle& called = handles_[handle];
    if (called.id != 0) {
        unregister(called.id, label);
        return;
    }
    log(1, called.refusal);
    tell(label, "OK/NONE", -1);
}

void Model::withdrawAll(const std::string& label) {
    const auto snapshot = table_;
    for (const auto& [id, record] : snapshot) {
        unregister(id, label + " " + record->request->name);
    }
}

void Model::answer(std::size_t outstanding, const Answer& answer) {
    const Outstanding answered = outstanding_[outstanding];
    outstanding_.erase(outstanding_.begin() + static_cast<std::ptrdiff_t>(outstanding));
    if (answered.method == "PUT") {
        handlePut(answered.id, answered.request, answer);
    } else if (answered.method == "HEAD") {
        handleHead(answered.id, answered.request, answer);
    } else {
        handleDelete(answered.id, answer);
    }
}

void Model::advance(Milliseconds duration) {
    const Milliseconds end = now_ + duration;
    const auto earlier = [](const Timer& one, const Timer& other) {
        return std::tie(one.due, one.number) < std::tie(other.due, other.number);
    };
    while (!timers_.empty()) {
        const auto first = std::min_element(timers_.begin(), timers_.end(), earlier);
        if (first->due > end) {
            break;
        }
        const Timer timer = *first;
        timers_.erase(first);
        now_ = std::max(now_, timer.due);
        if (timer.what == Due::Put) {
            sendPut(timer.id, timer.request);
        } else if (timer.what == Due::Head) {
            sendHead(timer.id, timer.request);
        } else {
            headTimeout();
        }
    }
    now_ = end;
}

void Model::stop() {
    if (!initiated_) {
        return;
    }
    initiated_ = false;
    outstanding_.clear();
    abandoned_.clear();
    executor_.clear();
    timers_.clear();
}

void Model::runIo() {
    while (!abandoned_.empty()) {
        const Outstanding head = abandoned_.front();
        abandoned_.pop_front();
        handleHead(head.id, head.request, {"ABANDONED", 0, {}, ""});
    }
}

std::vector<Told> Model::settle() {
    std::vector<Told> told;
    if (initiated_) {
        told.assign(executor_.begin(), executor_.end());
        executor_.clear();
    }
    return told;
}

std::string Model::reconcile(const std::vector<Milliseconds>& delays) {
    if (delays.size() != added_.size()) {
        return "timer tasks added: " + number(delays.size()) + ", expected " +
               number(added_.size());
    }
    for (std::size_t i = 0; i < delays.size(); ++i) {
        if (delays[i] < added_[i].least || delays[i] > added_[i].most) {
            return "delay of " + std::to_string(delays[i].count()) + " ms, expected " +
                   std::to_string(added_[i].least.count()) + " to " +
                   std::to_string(added_[i].most.count());
        }
        for (Timer& timer : timers_) {
            if (timer.number == added_[i].number && added_[i].least != added_[i].most) {
                timer.due = now_ + delays[i];
            }
        }
    }
    added_.clear();
    return "";
}

std::vector<Milliseconds> Model::pendingDelays() const {
    std::vector<Milliseconds> delays;
    for (const Timer& timer : timers_) {
        delays.push_back(timer.due - now_);
    }
    std::sort(delays.begin(), delays.end());
    return delays;
}

std::vector<std::string> Model::table() const {
    std::vector<std::string> rows{"check " + std::to_string(checkState_)};
    for (const auto& [id, record] : table_) {
        rows.push_back(number(id) + " state " + std::to_string(record->state) + " id '" +
                       record->request->id.value_or("") + "' uri " + record->request->uri);
    }
    return rows;
}

std::vector<std::string> Model::registryIds() const {
    std::vector<std::string> ids;
    for (const auto& [id, record] : table_) {
        if (record->request->id) {
            ids.push_back(*record->request->id);
        }
    }
    return ids;
}

void Model::tell(const std::string& label, const std::string& outcome, int http) {
    if (!label.empty()) {
        executor_.push_back(told(label, outcome, http));
    }
}

void Model::notify(const Description& description, bool registered) {
    if (!listener_.empty()) {
        executor_.push_back(listener_ + ": " + description.name + (registered ? " is" : " is not"));
    }
}

void Model::plan(Due what, std::uint64_t id, const Request& request, Milliseconds least,
                 Milliseconds most) {
    ++timersMade_;
    timers_.push_back({now_ + std::max(least, Milliseconds(0)), timersMade_, what, id, request});
    added_.push_back({timersMade_, least, most});
}

void Model::send(const std::string& method, std::uint64_t id, const Request& request,
                 const std::string& path, const std::string& body) {
    sent_.push_back({method, path, body});
    outstanding_.push_back({method, id, request});
}

void Model::sendPut(std::uint64_t id, const Request& request) {
    if (!initiated_) {
        return;
    }
    if (table_.count(id) == 0) {
        log(1, "sendPutRequest called but id not found in mapRegistryCallback. id=" + number(id));
        return;
    }
    send("PUT", id, request, request->requestUri, request->body);
}

void Model::sendHead(std::uint64_t id, const Request& request) {
    if (!initiated_) {
        return;
    }
    const auto found = table_.find(id);
    if (found == table_.end()) {
        log(1, "sendHeadRequest called but id not found in mapRegistryCallback. id=" + number(id));
        return;
    }
    if (found->second->state != REGISTERED) {
        log(1, "sendHeadRequest called but service is not REGISTERED. id=" + number(id));
        return;
    }
    send("HEAD", id, request, "/" + request->id.value_or(""), "");
    checkState_ = PENDING;
    plan(Due::HeadTimeout, id, request, options_.headTimeout, options_.headTimeout);
}

void Model::headTimeout() {
    if (checkState_ == RESPONDED) {
        checkState_ = IDLE;
        return;
    }
    checkState_ = TIMEOUT;
    log(0, "callback: Head State TIMEOUT");
    const auto oldest =
        std::find_if(outstanding_.begin(), outstanding_.end(),
                     [](const Outstanding& request) { return request.method == "HEAD"; });
    if (oldest != outstanding_.end()) {
        abandoned_.push_back(*oldest);
        outstanding_.erase(oldest);
    }
}

void Model::unregister(std::uint64_t id, const std::string& label) {
    if (!initiated_) {
        tell(label, "ERROR/DELEGATOR_NOT_INITIATED", -1);
        return;
    }
    const auto found = table_.find(id);
    if (found == table_.end()) {
        log(1, "Trying to unregister a service that is not registered (anymore). Ignore. id=" +
                   number(id));
        tell(label, "OK/NONE", -1);
        return;
    }
    Record& record = *found->second;
    if (record.request->id.value_or("").empty()) {
        log(1,
            "Trying to unregister a service that is not registered yet. Ignore. id=" + number(id));
        tell(label, "ERROR/SERVICE_NOT_FOUND", -1);
        return;
    }
    record.unregisterCallbacks.push_back(label);
    if (record.state == UNREGISTERING) {
        return;
    }
    record.state = UNREGISTERING;
    send("DELETE", id, record.request, "/" + *record.request->id, "");
}

void Model::handlePut(std::uint64_t id, const Request& request, const Answer& answer) {
    if (answer.status != 200 && answer.status != 201) {
        handlePutError(id, request, answer);
        return;
    }
    if (!answer.location) {
        log(1, "HTTP response is missing location field");
        handlePutError(id, request, answer);
        return;
    }
    const std::size_t slash = answer.location->rfind('/');
    if (slash == std::string::npos) {
        log(1, "Cannot parse service uuid from HTTP location: " + *answer.location);
        handlePutError(id, request, answer);
        return;
    }
    const std::string uuid = answer.location->substr(slash + 1);
    if (table_.count(id) == 0) {
        log(0, "PUT response received but id not found in mapRegistryCallback. id=" + number(id));
        return;
    }
    std::shared_ptr<Record> record = table_[id];
    std::shared_ptr<Record> same;
    for (const auto& [other, candidate] : table_) {
        if (!same && candidate->request->id == uuid) {
            same = candidate;
        }
    }
    std::vector<std::string> callbacks;
    if (same) {
        callbacks.swap(record->registerCallbacks);
        table_[id] = same;
    } else if (record->state == UNREGISTERING) {
        unregister(id, "");
        return;
    } else {
        request->id = uuid;
        request->uri = *answer.location;
        record->state = REGISTERED;
        record->wasRegistered = true;
        callbacks.swap(record->registerCallbacks);
        notify(*request, true);
    }
    for (const std::string& callback : callbacks) {
        tell(callback, "OK/NONE", answer.status);
    }
    if (options_.check) {
        plan(Due::Head, id, request, checkDelay(), checkDelay());
    }
}

void Model::handlePutError(std::uint64_t id, const Request& request, const Answer& answer) {
    if (table_.count(id) == 0) {
        log(0, "handlePutResponseError called but id not found in mapRegistryCallback. id=" +
                   number(id));
        return;
    }
    const std::shared_ptr<Record> record = table_[id];
    if (record->wasRegistered && record->state == UNREGISTERING) {
        for (const std::string& callback : removeRecord(id)) {
            tell(callback, "OK/NONE", answer.status);
        }
    } else if (record->wasRegistered) {
        log(2, "re-register request: " + request->requestUri);
        plan(Due::Put, id, request, checkDelay(), checkDelay());
    } else if (!retry(id, request, *record, answer)) {
        if (!answer.body.empty()) {
            log(1, "error message from service registry=" + answer.body);
        }
        table_.erase(id);
        for (const std::string& callback : record->registerCallbacks) {
            tell(callback, "ERROR/SERVICE_REGISTRY_ERROR", answer.status);
        }
    }
}

bool Model::retry(std::uint64_t id, const Request& request, Record& record, const Answer& answer) {
    const std::string status = ", status=" + std::to_string(answer.status);
    const bool answered = answer.communicationStatus == "OK";
    if (answered && !(options_.retryOnStatus && retryableStatuses.count(answer.status) != 0)) {
        log(1, "response put request was not ok" + status);
        return false;
    }
    log(1, "response put request was not ok, communication status=" + answer.communicationStatus +
               status);
    if (!options_.retry || (options_.maxRetries != 0 && record.retries >= options_.maxRetries)) {
        return false;
    }
    ++record.retries;
    log(2, "retry (" + number(record.retries) + ".) request: " + request->requestUri);
    if (options_.maxRetries != 0) {
        plan(Due::Put, id, request, options_.retryInterval, options_.retryInterval);
    } else {
        const Milliseconds step = options_.retryInterval * (1 << std::min(record.backoffs++, 4U));
        plan(Due::Put, id, request, std::max(step / 2, kLeastBackoff),
             std::max(step, kLeastBackoff));
    }
    return true;
}

void Model::handleHead(std::uint64_t id, const Request& request, const Answer& answer) {
    if (checkState_ == TIMEOUT) {
        log(0, "TIMEOUT on head request, ignore response.");
        checkState_ = IDLE;
        return;
    }
    checkState_ = RESPONDED;
    const auto found = table_.find(id);
    if (found == table_.end()) {
        return;
    }
    if (answer.status != 404) {
        plan(Due::Head, id, request, checkDelay(), checkDelay());
        return;
    }
    if (found->second->state == UNREGISTERING) {
        return;
    }
    found->second->state = REREGISTERING;
    request->id = "";
    request->uri = "";
    notify(*request, false);
    log(2, "automatic re-register with request: " + request->requestUri);
    sendPut(id, request);
}

void Model::handleDelete(std::uint64_t id, const Answer& answer) {
    if (answer.status == 200) {
        for (const std::string& callback : removeRecord(id)) {
            tell(callback, "OK/NONE", answer.status);
        }
        return;
    }
    log(1, "response to delete request was not ok, status=" + std::to_string(answer.status));
    if (!answer.body.empty()) {
        log(1, "error message from service registry=" + answer.body);
    }
    const auto found = table_.find(id);
    if (found == table_.end()) {
        log(0, "handleDeleteResponse called but id not found in mapRegistryCallback. id=" +
                   number(id));
        return;
    }
    found->second->state = REGISTERED;
    for (const std::string& callback : std::exchange(found->second->unregisterCallbacks, {})) {
        tell(callback, "ERROR/SERVICE_REGISTRY_ERROR", answer.status);
    }
}

std::vector<std::string> Model::removeRecord(std::uint64_t id) {
    const auto found = table_.find(id);
    if (found == table_.end()) {
        return {};
    }
    const std::shared_ptr<Record> record = found->second;
    for (auto entry = table_.begin(); entry != table_.end();) {
        entry = entry->second == record ? table_.erase(entry) : std::next(entry);
    }
    notify(*record->request, false);
    return std::exchange(record->unregisterCallbacks, {});
}

}  // namespace orvx::simulation
