// Writes entries as JSON. The service of an entry is stored as JSON text and is only copied. A long
// service continues in the next piece.
// Runs on the thread that owns the store.
// There is no lock.

#include "EntryWriter.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace orvx::registry {

using nlohmann::json;

namespace {

constexpr std::size_t kLongestHost = 253;
constexpr const char* kHostLetters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:";
constexpr std::size_t kPerEntry = 256;  // the cost of an entry without its service, in bytes

std::string dumped(const json& value) {
    // A path may contain bytes that are not UTF-8.
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string textIn(const json& service, const char* field) {
    const auto found = service.find(field);
    return found != service.end() && found->is_string() ? found->get<std::string>() : "";
}

/// The list as `,a,b,`, so that a pattern can search for `,a,`.
std::string listIn(const json& service, const char* field) {
    const auto found = service.find(field);
    std::string list;
    if (found != service.end() && found->is_array()) {
        for (const json& item : *found) {
            list += item.is_string() ? ',' + item.get<std::string>() : "";
        }
    }
    return list.empty() ? list : list + ',';
}

void addLabel(json& labels, const char* name, const std::string& value) {
    if (!value.empty() && value.size() <= kLongestLabel) {
        labels[std::string("__meta_orvx_") + name] = value;
    }
}

/// The address as `host:port`. Empty if it is invalid: Prometheus would refuse the whole list.
std::string targetOf(const json& service) {
    const std::string host = textIn(service, "host");
    const auto port = service.find("port");
    if (host.empty() || host.size() > kLongestHost ||
        host.find_first_not_of(kHostLetters) != std::string::npos || port == service.end() ||
        !port->is_number_unsigned() || *port == 0 || *port > 65'535) {
        return {};
    }
    const bool isIpv6 = host.find(':') != std::string::npos;
    return (isIpv6 ? '[' + host + ']' : host) + ':' + port->dump();
}

std::string headOf(const Entry& entry) {
    return "{\"checks\":" + std::to_string(entry.checks) + ",\"path\":" + dumped(entry.path) +
           ",\"service\":";
}

std::string tailOf(const Entry& entry) {
    return R"(,"uuid":")" + entry.uuid + R"("})";
}

}  // namespace

std::string targetGroupOf(const Entry& entry) {
    const json service = json::parse(entry.service);
    const std::string target = targetOf(service);
    if (target.empty()) {
        return {};
    }
    json labels{{"__meta_orvx_uuid", entry.uuid}};
    addLabel(labels, "path", entry.path);
    addLabel(labels, "name", textIn(service, "name"));
    addLabel(labels, "uri", textIn(service, "uri"));
    addLabel(labels, "categories", listIn(service, "serviceCategories"));
    addLabel(labels, "versions", listIn(service, "versions"));
    return dumped({{"targets", {target}}, {"labels", std::move(labels)}});
}

std::string textOf(const Entry& entry) {
    return headOf(entry) + entry.service + tailOf(entry);
}

std::optional<std::string> EntryWriter::next(const EntryStore& store) {
    std::string piece;
    if (!std::exchange(hasBegun_, true) && !isSingle_) {
        piece = format_ == Format::Entries ? "{\"entries\":[" : "[";
    }
    std::size_t searched = 0;
    while (!isDone_ && piece.size() < kPiece && searched < kSearch) {
        const Entry* const entry = store.entryFrom(number_, uuid_);
        if (revision_ != 0 && (entry == nullptr || entry->putRevision != revision_)) {
            return std::nullopt;
        }
        if (entry == nullptr || (revision_ == 0 && isAtLimit(*entry))) {
            end(store, piece);
            break;
        }
        if (revision_ == 0 && !query_.matches(*entry)) {
            searched += kPerEntry + entry->service.size();
            advance(*entry);
            continue;
        }
        if (format_ == Format::TargetGroups) {
            appendTargetGroup(*entry, piece);
            searched += kPerEntry + entry->service.size();
            advance(*entry);
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
            advance(*entry);
            isDone_ = isSingle_;
        }
    }
    return piece;
}

void EntryWriter::end(const EntryStore& store, std::string& piece) {
    piece += ']';
    isDone_ = true;
    if (format_ == Format::TargetGroups) {
        return;
    }
    if (query_.limit && count_ >= *query_.limit) {
        piece += R"(,"next":")" + placeAfter(number_, store.places()) + '"';
    }
    piece += '}';
}

void EntryWriter::appendTargetGroup(const Entry& entry, std::string& piece) {
    const std::string group = targetGroupOf(entry);
    if (!group.empty()) {
        piece += (count_++ > 0 ? "," : "") + group;
    }
}

/// A page does not end between entries with equal numbers, because the next page begins after the
/// last number.
bool EntryWriter::isAtLimit(const Entry& next) const {
    return query_.limit && count_ >= *query_.limit && next.number != number_;
}

/// The smallest text that is greater than a uuid is that uuid followed by a NUL.
void EntryWriter::advance(const Entry& entry) {
    number_ = entry.number;
    uuid_ = entry.uuid + '\0';
}

void EntryWriter::begin(const Entry& entry, std::string& piece) {
    if (count_++ > 0) {
        piece += ',';
    }
    piece += headOf(entry);
    number_ = entry.number;
    uuid_ = entry.uuid;
    revision_ = entry.putRevision;
    offset_ = 0;
}

}  // namespace orvx::registry
