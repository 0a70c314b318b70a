#pragma once

#include <nlohmann/json.hpp>

#include <map>
#include <string>
#include <vector>

namespace orvx::announce {

/// A description as it was read, with where it stands: "file:line:column: ".
struct ReadService {
    nlohmann::json description;
    std::string at;
    /// Of each key.
    std::map<std::string, std::string> keysAt = {};

    /// Throws UsageError with where the key, or else the description, stands.
    [[noreturn]] void refuse(const std::string& key, const std::string& why) const;
};

/// The descriptions that a JSON file lists. Throws UsageError for what is not a list of objects,
/// and for a key that is unknown or stands there twice. The members of "properties" become keys of
/// the description.
std::vector<ReadService> readServiceFile(const std::string& name);

}  // namespace orvx::announce
