#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "EntryStore.h"
#include "ListQuery.h"

namespace orvx::registry {

/// An entry as JSON.
std::string textOf(const Entry& entry);

/// The service as a group of Prometheus' HTTP service discovery. Empty: it has no host that could
/// be one, or no port. Labels of more than kLongestLabel bytes are left out.
std::string targetGroupOf(const Entry& entry);
constexpr std::size_t kLongestLabel = 1'000;

/// Writes the list of entries, or one entry, as JSON, piece by piece, each entry as it is when it
/// is written. It holds nothing but its place: who reads slowly costs no copy of the list. An entry
/// that lives while the list is written is in it, and none is in it twice.
///
/// Thread-safety: that of the store.
class EntryWriter {
  public:
    /// A piece ends once it has this many bytes. No piece is longer than four times this.
    static constexpr std::size_t kPiece = 8'192;
    /// How many bytes of services that do not match the query are searched for one piece.
    static constexpr std::size_t kSearch = 262'144;

    enum class Format { Entries, TargetGroups };

    /// The entries that are wanted: `{"entries":[...]}`, and `"next"` where the limit is reached;
    /// or the target groups of their services: `[...]`.
    explicit EntryWriter(ListQuery query = {}, Format format = Format::Entries)
        : query_(std::move(query)), format_(format), number_(query_.after + 1) {}
    /// That entry, which the store has.
    explicit EntryWriter(const Entry& only)
        : number_(only.number), uuid_(only.uuid), isSingle_(true) {}

    /// The next piece, which may be empty. None: the entry of which a part is written already has
    /// changed, and the text cannot be continued. `store`: the same one each time.
    std::optional<std::string> next(const EntryStore& store);

    bool isDone() const { return isDone_; }

  private:
    void begin(const Entry& entry, std::string& piece);
    void advance(const Entry& entry);
    bool isAtLimit(const Entry& next) const;
    void appendTargetGroup(const Entry& entry, std::string& piece);
    void end(const EntryStore& store, std::string& piece);

    ListQuery query_{};
    Format format_ = Format::Entries;
    std::size_t count_ = 0;       // of entries so far
    std::uint64_t number_ = 0;    // of the next entry, or of the last one: then
    std::string uuid_{};          // follows that of the last one; otherwise that of the next one
    std::uint64_t revision_ = 0;  // of the put of the entry that is written; 0: none is
    std::size_t offset_ = 0;      // how much of its service is written
    bool isSingle_ = false;
    bool hasBegun_ = false;
    bool isDone_ = false;
};

}  // namespace orvx::registry
