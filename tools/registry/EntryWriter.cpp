// The entries as text. The service of an entry is text already and is copied only; a long one is
// cut wherever a piece is full.
// Entered by whichever thread owns the store, one at a time.
// There is no lock.

#include "EntryWriter.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace orvx::registry {

namespace {

std::string quoted(const std::string& text) {
    // A path may hold bytes that are no UTF-8.
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string headOf(const Entry& entry) {
    return "{\"checks\":" + std::to_string(entry.checks) + ",\"path\":" + quoted(entry.path) +
           ",\"service\":";
}

std::string tailOf(const Entry& entry) {
    return ",\"uuid\":\"" + entry.uuid + "\"}";
}

}  // namespace

std::string textOf(const Entry& entry) {
    return headOf(entry) + entry.service + tailOf(entry);
}

std::optional<std::string> EntryWriter::next(const EntryStore& store) {
    std::string piece;
    if (!std::exchange(hasBegun_, true) && !isSingle_) {
        piece = "{\"entries\":[";
    }
    while (!isDone_ && piece.size() < kPiece) {
        const Entry* const entry = store.entryFrom(number_);
        if (revision_ != 0 && (entry == nullptr || entry->putRevision != revision_)) {
            return std::nullopt;
        }
        if (entry == nullptr) {
            piece += "]}";
            isDone_ = true;
            break;
        }
        if (revision_ == 0) {
            begin(*entry, piece);
        }
        const std::size_t room = piece.size() < 2 * kPiece ? 2 * kPiece - piece.size() : 0;
        const std::size_t size = std::min(room, entry->service.size() - offset_);
        piece.append(entry->service, offset_, size);
        offset_ += size;
        if (offset_ == entry->service.size()) {
            piece += tailOf(*entry);
            revision_ = 0;
            ++number_;
            isDone_ = isSingle_;
        }
    }
    return piece;
}

void EntryWriter::begin(const Entry& entry, std::string& piece) {
    if (hasEntry_) {
        piece += ',';
    }
    hasEntry_ = true;
    piece += headOf(entry);
    number_ = entry.number;
    revision_ = entry.putRevision;
    offset_ = 0;
}

}  // namespace orvx::registry
