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

constexpr std::size_t kPerEntry = 256;  // what it costs to look at a short one

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
    std::size_t searched = 0;
    while (!isDone_ && piece.size() < kPiece && searched < kSearch) {
        const Entry* const entry = store.entryFrom(number_);
        if (revision_ != 0 && (entry == nullptr || entry->putRevision != revision_)) {
            return std::nullopt;
        }
        if (entry == nullptr || (revision_ == 0 && count_ == query_.limit)) {
            end(store, piece);
            break;
        }
        if (revision_ == 0 && !query_.matches(*entry)) {
            searched += kPerEntry + entry->service.size();
            number_ = entry->number + 1;
            continue;
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

void EntryWriter::end(const EntryStore& store, std::string& piece) {
    piece += ']';
    if (count_ == query_.limit) {
        piece += ",\"next\":\"" + placeAfter(number_ - 1, store.instance()) + '"';
    }
    piece += '}';
    isDone_ = true;
}

void EntryWriter::begin(const Entry& entry, std::string& piece) {
    if (count_++ > 0) {
        piece += ',';
    }
    piece += headOf(entry);
    number_ = entry.number;
    revision_ = entry.putRevision;
    offset_ = 0;
}

}  // namespace orvx::registry
