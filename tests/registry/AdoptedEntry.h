#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "EntryStore.h"

namespace orvx::registry {

/// Puts an entry that another process created into the store. Its path is "/" and its uuid.
inline void adopt(EntryStore& store, const std::string& uuid, std::uint64_t number) {
    Entry entry;
    entry.uuid = uuid;
    entry.number = number;
    entry.path = '/' + uuid;
    entry.service = "{}";
    store.adopt(std::move(entry));
}

}  // namespace orvx::registry
