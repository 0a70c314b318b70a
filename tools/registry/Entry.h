#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace orvx::registry {

/// Limit in bytes for the service and three times the path of an entry. The events of the stream
/// contain only a summary of a longer entry.
constexpr std::size_t kLongestShownWhole = 6'144;

/// One registered service.
struct Entry {
    /// A put that changed the host or the port of the service.
    struct Move {
        std::string from;  ///< the previous address, as "host:port"
        std::chrono::steady_clock::time_point when;
    };

    std::string uuid;          ///< random (version 4), lower case
    std::uint64_t number = 0;  ///< orders the entries by their creation
    std::string path;          ///< the request target of its put, byte by byte
    std::string service;       ///< the object of the last put, as JSON text
    std::string summary{};     ///< the result of summaryOf(), if isLong()
    std::string address{};     ///< of the service: the result of addressOf()
    std::string owner{};       ///< the name of the token of the last put; empty: none
    std::uint64_t checks = 0;  ///< the number of its checks in this process
    std::chrono::system_clock::time_point created{};
    std::chrono::steady_clock::time_point renewed{};  ///< the last put, check or load
    std::optional<std::chrono::steady_clock::time_point> checked{};  ///< the last check
    std::optional<Move> moved{};  ///< the last move in this process
    /// The store's revisions of the last put and of the last renewal. A put is a renewal, too.
    std::uint64_t putRevision = 0;
    std::uint64_t renewalRevision = 0;
    std::uint64_t etcdRevision = 0;  ///< etcd's revision of the last put; 0: not kept at etcd
};

/// The changes of an entry, except checks.
enum class Change { Announced, Replaced, Withdrawn, Expired, Forgotten };

/// The owner of entries: a token, with the limits for all its entries.
struct Owner {
    std::string name{};  ///< of the token; empty: no token, and the limits do not apply
    std::size_t maxEntries = 0;
    std::uint64_t maxBytes = 0;  ///< of paths and services
};

/// The address of the service, as "host:port". "?" stands for a host or a port that is missing. A
/// host is cut after 300 bytes.
std::string addressOf(const nlohmann::json& service);

/// Whether a service has another address now. False if it had neither host nor port before.
bool hasMoved(const std::string& before, const std::string& now);

/// Whether the events of the stream contain only a summary of the entry.
bool isLong(const Entry& entry);

/// Name, uri, host and port of a service, shortened, as JSON text.
std::string summaryOf(std::string_view service);

/// The text, or its first 200 bytes and "…" if it is longer. A character of UTF-8 is not cut.
std::string shortened(const std::string& text);

/// The JSON text under which the service is stored. Bytes that are not UTF-8 are replaced.
std::string serialize(const nlohmann::json& service);

/// A new uuid for an entry.
std::string randomUuid();

}  // namespace orvx::registry
