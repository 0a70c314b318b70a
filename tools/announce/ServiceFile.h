#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "InputFile.h"

namespace orvx::announce {

struct ServiceFileText {
    std::string name;
    std::string text;
};

/// A description as it was read, with its place in the file, in bytes.
struct ReadService {
    nlohmann::json description;
    /// Null without a file.
    std::shared_ptr<const ServiceFileText> file = nullptr;
    std::size_t at = 0;
    /// Of each key.
    std::map<std::string, std::size_t> keysAt = {};

    /// Throws UsageError with "file:line:column: " of the key, or else of the description.
    [[noreturn]] void refuse(const std::string& key, const std::string& why) const;
};

/// The descriptions that a JSON file lists. Throws UsageError for what cannot be read, for what is
/// not a list of objects, and for a key that is unknown or stands there twice. The members of
/// "properties" become keys of the description.
std::vector<ReadService> readServiceFile(const std::string& name, Reading reading);

}  // namespace orvx::announce
