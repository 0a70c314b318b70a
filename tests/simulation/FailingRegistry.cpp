// The registry for histories with faults.
#include "FailingRegistry.h"

#include <algorithm>

namespace orvx::simulation::convergence {

using communication::HttpResponse;

namespace {

HttpResponse answerOf(int status, const std::string& headerLines = "") {
    return {static_cast<HttpResponse::StatusCode>(status), headerLines, ""};
}

}  // namespace

HttpResponse FailingRegistry::act(const Request& request, unsigned variety) {
    if (request.method() == "PUT") {
        return put(request, variety);
    }
    const auto entry = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& one) {
        return "/" + one.uuid == request.path();
    });
    if (entry == entries_.end()) {
        return answerOf(variety % 2 == 0 ? 404 : 410);
    }
    if (request.method() == "DELETE") {
        entries_.erase(entry);
    }
    return answerOf(variety % 2 == 0 ? 200 : 204);
}

HttpResponse FailingRegistry::put(const Request& request, unsigned variety) {
    const std::string path = leadsTo(request.path());
    Entry* entry = find(path);
    if (entry == nullptr || kind_ == Kind::KeepsVersions) {
        entry = &entries_.emplace_back(Entry{path, "", "", false});
    }
    if (kind_ == Kind::UuidsOfPaths) {
        entry->uuid = "u" + path.substr(1);
    } else if (entry->uuid.empty() || kind_ == Kind::Renames) {
        entry->uuid = "u" + std::to_string(++uuids_);
    }
    entry->name = nameIn(request.body());
    static const std::vector<std::pair<std::string, std::string>> around{
        {"/", ""}, {"/x/", ""}, {"/x/", "/"}, {"http://127.0.0.1:8500/x/", ""}};
    const auto& [before, after] = around[variety % around.size()];
    return answerOf(variety % 2 == 0 ? 200 : 201,
                    "Location: " + before + entry->uuid + after + "\r\n");
}

void FailingRegistry::told(const HttpResponse& response) {
    const std::string location = response.getLocation().value_or("");
    for (Entry& entry : entries_) {
        const std::size_t at = location.rfind("/" + entry.uuid);
        const std::size_t end = at + 1 + entry.uuid.size();
        entry.isTold |= at != std::string::npos && (end == location.size() || location[end] == '/');
    }
}

void FailingRegistry::forget(std::size_t which) {
    if (!entries_.empty()) {
        entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(which % entries_.size()));
    }
}

FailingRegistry::Entry* FailingRegistry::find(const std::string& path) {
    const auto found = std::find_if(entries_.rbegin(), entries_.rend(),
                                    [&](const Entry& one) { return one.path == path; });
    return found == entries_.rend() ? nullptr : &*found;
}

std::string nameIn(const std::string& description) {
    static const std::string key = "\"name\":\"";
    const std::size_t begin = description.find(key) + key.size();
    return description.substr(begin, description.find('"', begin) - begin);
}

}  // namespace orvx::simulation::convergence
