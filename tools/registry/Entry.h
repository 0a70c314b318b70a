#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace orvx::registry {

/// The events of the stream show an entry whose service and path are longer by its summary.
constexpr std::size_t kLongestShownWhole = 6'144;

/// One registered service.
struct Entry {
    /// A put of a service with another host or port than the one before.
    struct Move {
        std::string from;  ///< the address before, as "host:port"
        std::chrono::steady_clock::time_point when;
    };

    std::string uuid;          ///< random (version 4), lower case; the name of the entry
    std::uint64_t number = 0;  ///< counts the entries in the order of their creation
    std::string path;          ///< the request target it was put at, byte by byte
    std::string service;       ///< the object that was put there last, as JSON text
    std::string summary{};     ///< if isLong(): what summaryOf() makes of the service
    std::string address{};     ///< where the service is reached, as addressOf() gives it
    std::string owner{};       ///< the name of the token that put it last; empty: none
    std::uint64_t checks = 0;  ///< how often it was asked whether it is there, in this process
    std::chrono::system_clock::time_point created{};
    std::chrono::steady_clock::time_point renewed{};  ///< put, checked or loaded last
    std::optional<std::chrono::steady_clock::time_point> checked{};
    std::optional<Move> moved{};  ///< the last one, in this process
    /// The store's revisions of the last put and of the last renewal, which every put is as well.
    std::uint64_t putRevision = 0;
    std::uint64_t renewalRevision = 0;
    std::uint64_t etcdRevision = 0;  ///< etcd's revision of the last put; 0: it is not at etcd
};

/// What can happen to an entry, but for checks.
enum class Change { Announced, Replaced, Withdrawn, Expired, Forgotten };

/// The token that puts an entry, and the limits for all entries of that token.
struct Owner {
    std::string name{};  ///< the token's; empty: there is no token, and the limits do not apply
    std::size_t maxEntries = 0;
    std::uint64_t maxBytes = 0;  ///< of paths and services
};

/// Where the service is reached, as "host:port". "?" stands for a host or a port that it does not
/// name; a host is cut after 300 bytes.
std::string addressOf(const nlohmann::json& service);

/// Whether a service that was at an address that it named is at another one now.
bool hasMoved(const std::string& before, const std::string& now);

/// Whether the events of the stream show only a part of the entry.
bool isLong(const Entry& entry);

/// Name, uri, host and port of a service, shortened, as JSON text.
std::string summaryOf(std::string_view service);

/// At most 200 bytes of the text, which is not cut within a letter, and "…" if that is not all.
std::string shortened(const std::string& text);

/// The service as it is kept. What is no UTF-8 is replaced.
std::string serialize(const nlohmann::json& service);

/// A new name of an entry.
std::string randomUuid();

}  // namespace orvx::registry
