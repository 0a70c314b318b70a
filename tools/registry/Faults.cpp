// Applies the injected faults to a request. Every fault that matches the request is counted down;
// delays add up, a reset takes precedence over a status, and the last status counts.
// Runs on the thread that owns the store.
// There is no lock.

#include "Faults.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvx::registry {

namespace http = boost::beast::http;
using nlohmann::json;

namespace {

bool matches(const Fault& fault, std::optional<http::verb> method) {
    if (!method) {
        return fault.kind == Fault::Kind::Forget && !fault.method && fault.skip == 0;
    }
    return fault.method ? fault.method == method
                        : method == http::verb::put || method == http::verb::head ||
                              method == http::verb::delete_;
}

/// Counts a request that the fault matches. Returns whether the fault affects it.
bool countDown(Fault& fault) {
    if (fault.skip > 0) {
        --fault.skip;
        return false;
    }
    if (fault.requests) {
        --*fault.requests;
    }
    return true;
}

void addEffect(const Fault& fault, FaultEffect& effect, EntryStore& store) {
    switch (fault.kind) {
        case Fault::Kind::Delay:
            effect.delay += fault.delay;
            break;
        case Fault::Kind::Reset:
            effect.reset = true;
            break;
        case Fault::Kind::Status:
            effect.status = fault.status;
            break;
        case Fault::Kind::Forget:
            fault.uuid.empty() ? store.clear()
                               : static_cast<void>(store.remove(fault.uuid, Change::Forgotten));
            break;
    }
}

json toJson(const Fault& fault, EntryStore::Time now) {
    static constexpr const char* kKinds[] = {"delay", "reset", "status", "forget"};
    const auto secondsIn = [](EntryStore::Time::duration duration) {
        const auto rounded = std::chrono::round<std::chrono::milliseconds>(duration);
        return std::chrono::duration<double>(rounded).count();
    };
    const auto begin = std::max(fault.begin, now);
    json object{{"fault", kKinds[static_cast<int>(fault.kind)]}, {"skip", fault.skip}};
    if (fault.kind == Fault::Kind::Delay) {
        object["milliseconds"] = fault.delay.count();
    }
    if (fault.kind == Fault::Kind::Status) {
        object["status"] = fault.status;
    }
    if (!fault.uuid.empty()) {
        object["uuid"] = fault.uuid;
    }
    if (fault.method) {
        object["method"] = std::string(http::to_string(*fault.method));
    }
    if (fault.requests) {
        object["requests"] = *fault.requests;
    }
    object["after"] = secondsIn(begin - now);
    if (fault.end) {
        object["seconds"] = secondsIn(std::max(*fault.end, begin) - begin);
    }
    return object;
}

}  // namespace

FaultEffect Faults::apply(std::optional<http::verb> method, EntryStore& store) {
    const auto now = store.now();
    dropSpent(now);
    FaultEffect effect;
    for (Fault& fault : faults_) {
        if (now >= fault.begin && matches(fault, method) && countDown(fault)) {
            addEffect(fault, effect, store);
        }
    }
    return effect;
}

json Faults::list(EntryStore::Time now) {
    dropSpent(now);
    json faults = json::array();
    for (const Fault& fault : faults_) {
        faults.push_back(toJson(fault, now));
    }
    return {{"faults", std::move(faults)}};
}

std::size_t Faults::count(EntryStore::Time now) {
    dropSpent(now);
    return faults_.size();
}

void Faults::dropSpent(EntryStore::Time now) {
    const auto isSpent = [now](const Fault& fault) {
        return fault.requests == std::uint64_t{0} || (fault.end && now >= *fault.end);
    };
    faults_.erase(std::remove_if(faults_.begin(), faults_.end(), isSpent), faults_.end());
}

}  // namespace orvx::registry
