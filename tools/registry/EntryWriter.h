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

/// The service as a target group of Prometheus' HTTP service discovery. Empty if it has no valid
/// host or port. Labels of more than kLongestLabel bytes are left out.
std::string targetGroupOf(const Entry& entry);
constexpr std::size_t kLongestLabel = 1'000;

/// Writes the list of entries, or one entry, as JSON in pieces. Each piece shows the present state
/// of its entries. The writer stores only a position, so a slow reader costs no copy of the list.
/// An entry that exists during the whole time is in the list, and no entry is in it twice.
///
/// Thread-safety: that of the store.
class EntryWriter {
  public:
    /// A piece ends once it has this many bytes. No piece is longer than four times this.
    static constexpr std::size_t kPiece = 8'192;
    /// Limit to the bytes of services that are examined for one piece without being written as
    /// entries. It bounds the time for a piece.
    static constexpr std::size_t kSearch = 262'144;

    enum class Format { Entries, TargetGroups };

    /// Writes the entries that match the query: `{"entries":[...]}`, with `"next"` if the limit was
    /// reached; or the target groups of their services: `[...]`.
    explicit EntryWriter(ListQuery query = {}, Format format = Format::Entries)
        : query_(std::move(query)), format_(format), number_(query_.after + 1) {}
    /// Writes one entry, which must be in the store.
    explicit EntryWriter(const Entry& only)
        : number_(only.number), uuid_(only.uuid), isSingle_(true) {}

    /// The next piece, which may be empty. Nothing if an entry has changed of which a part was
    /// already written: the text cannot be continued. `store`: the same in each call.
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
    std::size_t count_ = 0;     // of the entries that were written
    std::uint64_t number_ = 0;  // The next entry is the first one from this number and uuid on.
    std::string uuid_{};
    std::uint64_t revision_ = 0;  // of the last put of an entry that is written in part; 0: none
    std::size_t offset_ = 0;      // the bytes of its service that were written
    bool isSingle_ = false;
    bool hasBegun_ = false;
    bool isDone_ = false;
};

}  // namespace orvx::registry
