// Passes each call on to the store.
// Runs on the thread that owns the store.
// There is no lock.

#include <chrono>
#include <iostream>
#include <utility>

#include "EntryBackend.h"
#include "FileContent.h"

namespace orvx::registry {

void LocalBackend::put(const std::string& path, const nlohmann::json& service, const Owner& owner,
                       std::function<void(std::optional<PutResult>)> done) {
    auto [entry, created, movedFrom] = store_.put(path, service, owner);
    done(PutResult{entry, created, std::move(movedFrom)});
}

void LocalBackend::find(const std::string& uuid, std::function<void(Presence, const Entry*)> done) {
    const Entry* const entry = store_.find(uuid);
    done(entry == nullptr ? Presence::Absent : Presence::Present, entry);
}

void LocalBackend::remove(const Entry& entry, std::function<void(Presence)> done) {
    const std::string uuid = entry.uuid;  // `entry` is destroyed by the removal
    done(store_.remove(uuid) ? Presence::Present : Presence::Absent);
}

void LocalBackend::expire() {
    if (store_.now() < nextExpiry_) {
        return;
    }
    try {
        store_.expire();
        hasFailed_ = false;
    } catch (const FileError& error) {
        nextExpiry_ = store_.now() + std::chrono::seconds(1);
        if (!std::exchange(hasFailed_, true)) {
            std::cerr << "orvx-registry: " << error.what() << "; nothing expires" << std::endl;
        }
    }
}

}  // namespace orvx::registry
