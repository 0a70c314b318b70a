#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ListQuery.h"

namespace orvx::registry {

/// A copy of the entries of a registry that match a query, updated by the events of its stream.
///
/// Thread-safety: none.
class WatchedEntries {
  public:
    /// Returns the entry with that uuid as the registry has it; empty: it is gone. Called for
    /// entries whose service the stream has cut.
    using Fetch = std::function<std::optional<nlohmann::json>(const std::string& uuid)>;

    WatchedEntries(ListQuery query, Fetch fetch)
        : query_(std::move(query)), fetch_(std::move(fetch)) {}

    /// Applies an event. Returns whether the list is complete and may differ from the one before.
    /// Throws what `fetch` throws; then the copy needs the whole list.
    bool apply(std::string_view event, const nlohmann::json& data);

    /// `{"entries":[{"path":...,"service":{...},"uuid":...},...]}` in ASCII, in the order of
    /// creation.
    std::string text() const;

  private:
    bool put(nlohmann::json entry);
    bool remove(const std::string& uuid);

    const ListQuery query_;
    const Fetch fetch_;
    bool isComplete_ = false;
    // By the number and the uuid of the entry, since numbers may be equal.
    std::map<std::pair<std::uint64_t, std::string>, std::string> texts_{};
    std::unordered_map<std::string, std::uint64_t> numbers_{};
};

}  // namespace orvx::registry
