// A registry that answers by itself: the protocol of PUT, HEAD and DELETE, and a clock that stops
// at each timer to answer the requests.
// Entered by the test's thread only; there is no lock.

#include <orvx/simulation/Registry.h>

#include <algorithm>
#include <stdexcept>

namespace orvx::simulation {

using communication::HttpResponse;
using std::chrono::milliseconds;

namespace {

/// After so many due tasks at the same time, the clock counts as standing still.
constexpr int kMostTurnsAtOneTime = 1000;

}  // namespace

Registry::Registry(World& world) : world_(world) {}

void Registry::advance(milliseconds duration) {
    const milliseconds end =
        world_.now() + std::clamp(duration, milliseconds(0), milliseconds::max() - world_.now());
    int turns = 0;
    answerAll();
    for (auto next = world_.nextDelay(); next && *next <= end - world_.now();
         next = world_.nextDelay()) {
        turns = *next > milliseconds(0) ? 0 : turns + 1;
        if (turns > kMostTurnsAtOneTime) {
            throw std::logic_error("something is due again and again: is an interval zero?");
        }
        world_.advance(*next);
        answerAll();
    }
    world_.advance(end - world_.now());
}

void Registry::answerAll() {
    world_.settle();
    while (auto request = world_.takeRequest()) {
        if (request->isOutstanding()) {
            request->answer(isFailing(*request) ? *failure_ : answerTo(*request));
        }
        world_.settle();
    }
}

bool Registry::isFailing(const Request& request) const {
    return failure_ && (failingMethod_.empty() || failingMethod_ == request.method());
}

HttpResponse Registry::answerTo(const Request& request) {
    if (request.method() == "PUT") {
        return put(request);
    }
    if (request.method() == "HEAD" && request.path() == "/") {
        return {HttpResponse::StatusCode::Ok, "", ""};
    }
    const auto entry = std::find_if(entries_.begin(), entries_.end(), [&](const auto& one) {
        return one.second.location == request.path();
    });
    if (entry == entries_.end()) {
        return {HttpResponse::StatusCode::NotFound, "", ""};
    }
    if (request.method() == "DELETE") {
        entries_.erase(entry);
    }
    return {HttpResponse::StatusCode::Ok, "", ""};
}

HttpResponse Registry::put(const Request& request) {
    Entry& entry = entries_[request.path()];
    if (entry.location.empty()) {
        entry.location = "/uuid-" + std::to_string(++lastUuid_);
    }
    entry.description = request.body();
    return {HttpResponse::StatusCode::Created, "Location: " + entry.location + "\r\n", ""};
}

void Registry::fails(HttpResponse outcome, std::string method) {
    failure_ = std::move(outcome);
    failingMethod_ = std::move(method);
}

std::string Registry::description(const std::string& path) const {
    const auto entry = entries_.find(path);
    return entry != entries_.end() ? entry->second.description : "";
}

}  // namespace orvx::simulation
