#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "GrowingPause.h"
#include "ListQuery.h"

namespace orvx::registry {

/// The registry did not return an entry; a later attempt may succeed.
class FetchFailure : public std::runtime_error {
  public:
    /// `retryAfter`: the pause that the registry asks for; 0: none.
    FetchFailure(const std::string& reason, std::chrono::seconds retryAfter)
        : std::runtime_error(reason), retryAfter_(retryAfter) {}
    std::chrono::seconds retryAfter() const { return retryAfter_; }

  private:
    std::chrono::seconds retryAfter_;
};

/// A copy of the entries of a registry that match a query, updated by the events of its stream.
///
/// An entry whose service the stream has cut is fetched. If that fails, it is fetched again with a
/// later event, after a pause that grows from a second to a minute; until then the copy has the
/// previous service of the entry, if there is one.
///
/// Thread-safety: none.
class WatchedEntries {
  public:
    using Time = std::chrono::steady_clock::time_point;
    /// Returns the entry with that uuid as the registry has it; empty: it is gone. Throws a
    /// FetchFailure.
    using Fetch = std::function<std::optional<nlohmann::json>(const std::string& uuid)>;
    using Now = std::function<Time()>;

    WatchedEntries(ListQuery query, Fetch fetch, Now now = std::chrono::steady_clock::now)
        : query_(std::move(query)), fetch_(std::move(fetch)), now_(std::move(now)) {}

    /// Applies an event. Returns whether the list is complete and may differ from the one before.
    /// A new list is complete when all of its entries are fetched, or 30 seconds after its end
    /// without those that could not be fetched and have no previous service.
    bool apply(std::string_view event, const nlohmann::json& data);

    /// Whether an entry could not be fetched yet.
    bool isWaiting() const { return !waiting_.empty(); }

    /// `{"entries":[{"path":...,"service":{...},"uuid":...},...]}` in ASCII, in the order of
    /// creation.
    std::string text() const;

  private:
    /// An entry that is to be fetched.
    struct Waiting {
        std::uint64_t number;
        Time due;
        GrowingPause pause{};
    };
    using WaitingByUuid = std::unordered_map<std::string, Waiting>;

    void beginList();
    void endList();
    void put(const nlohmann::json& entry);
    void putWhole(const nlohmann::json& entry, const std::string& uuid, std::uint64_t number);
    void putText(const std::string& uuid, std::uint64_t number, std::string text);
    void remove(const std::string& uuid);
    bool mayMatch(const nlohmann::json& cutService) const;
    WaitingByUuid::iterator nextToFetch();
    void fetchDue();
    bool isComplete();

    const ListQuery query_;
    const Fetch fetch_;
    const Now now_;
    bool isListed_ = false;
    bool isComplete_ = false;
    bool isChanged_ = false;  // since apply() returned true
    Time completeBy_{};       // if isListed_
    // By the number and the uuid of the entry, since numbers may be equal.
    std::map<std::pair<std::uint64_t, std::string>, std::string> texts_{};
    std::unordered_map<std::string, std::uint64_t> numbers_{};
    std::unordered_map<std::string, std::string> previous_{};  // texts of the list before, by uuid
    WaitingByUuid waiting_{};
    Time resumesAt_{};  // nothing is fetched before this time
};

}  // namespace orvx::registry
