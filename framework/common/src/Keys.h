#pragma once

/// The keys under which a description holds its values, in memory and in JSON.
namespace orvx::common::key {

inline constexpr const char* id = "id";
inline constexpr const char* name = "name";
inline constexpr const char* host = "host";
inline constexpr const char* port = "port";
inline constexpr const char* prefix = "prefix";
inline constexpr const char* uri = "uri";
inline constexpr const char* description = "description";
inline constexpr const char* versions = "versions";
inline constexpr const char* privileges = "privileges";
inline constexpr const char* serviceCategories = "serviceCategories";

}  // namespace orvx::common::key
