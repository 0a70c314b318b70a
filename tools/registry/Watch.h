#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "EntryStore.h"

namespace orvx::registry {

/// The position of one reader of the stream of server-sent events: first the list, then the
/// changes. docs/registry-protocol.md describes the events. There is no queue, only the revision up
/// to which the reader is informed, so a slow reader gets only the latest state of each entry.
///
/// Thread-safety: that of the store.
class Watch {
  public:
    /// next() adds no event to a piece of at least kPiece bytes. No event exceeds kLongestEvent.
    static constexpr std::size_t kPiece = 8'192;
    static constexpr std::size_t kLongestEvent = 8'192;
    /// The maximum time between two `state` events, provided that next() is called that often.
    static constexpr std::chrono::seconds kHeartbeat{2};

    /// `lastId`: the id of the last event that the reader knows. If it is not an id of this store,
    /// or too old, the reader gets the list again. `hasChecks`: whether the reader gets the checks.
    Watch(const EntryStore& store, std::string_view lastId, bool hasChecks = true);

    /// The next events; empty if nothing has changed. `faults`: the number of faults that are set.
    /// `store`: that of the constructor.
    std::string next(const EntryStore& store, std::size_t faults);

    /// The revision of the last change that this reader gets.
    std::uint64_t latest(const EntryStore& store) const {
        return hasChecks_ ? store.revision() : store.lastPutOrRemoval();
    }

    /// Whether next() returns the same events for both.
    bool operator==(const Watch& other) const;

  private:
    enum class Kind { Nothing, Put, Check, Removal };
    struct Change {
        Kind kind = Kind::Nothing;
        std::uint64_t revision = 0;
        const Entry* entry = nullptr;
        std::string_view uuid{};
    };

    void beginList(const EntryStore& store);
    Change peek(const EntryStore& store) const;
    void advance(std::uint64_t revision);
    bool appendNext(const EntryStore& store, std::string& events);
    void appendChecks(const EntryStore& store, std::string& events);
    void appendState(const EntryStore& store, std::size_t faults, std::string& events);

    // The reader has got all puts up to `puts_`, and all renewals and removals up to `others_`. A
    // list consists of all puts after revision 0, and of the renewals and removals since its start.
    // Once it is complete, both positions are equal.
    std::uint64_t puts_ = 0;
    std::uint64_t others_ = 0;
    bool beginsList_ = false;
    std::optional<std::uint64_t>
        listed_{};  // the revision that completes the list, until `listed` is sent
    std::optional<EntryStore::Time::rep> heartbeat_{};  // the number of the last heartbeat
    std::size_t faults_ = 0;
    bool hasChecks_;
};

/// The latest pieces of the stream. Readers in the same position share a piece, so the text of an
/// event is made once for many readers.
///
/// Thread-safety: that of the store.
class RecentPieces {
  public:
    using Piece = std::shared_ptr<const std::string>;

    static constexpr std::size_t kMaxPieces = 16;
    /// How long a piece is shared. The times in it are wrong by at most this.
    static constexpr std::chrono::milliseconds kLifetime{50};

    /// The result of watch.next(), with times that may be older by kLifetime. Never null. `store`:
    /// the same in each call.
    Piece next(Watch& watch, const EntryStore& store, std::size_t faults);

  private:
    struct Made {
        Watch before;
        Watch after;
        std::uint64_t latest;
        std::size_t faults;
        EntryStore::Time when;
        Piece piece;
    };

    std::deque<Made> made_{};
};

}  // namespace orvx::registry
