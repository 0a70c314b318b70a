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

/// A description, with its position in the file in bytes.
struct ParsedService {
    nlohmann::json description;
    /// Null if the description comes from options.
    std::shared_ptr<const ServiceFileText> file = nullptr;
    std::size_t offset = 0;
    /// The position of each key.
    std::map<std::string, std::size_t> keyOffsets = {};

    /// Throws UsageError with "file:line:column: " of the key, or of the description without that
    /// key.
    [[noreturn]] void fail(const std::string& key, const std::string& why) const;
};

/// Reads the descriptions in a JSON file. Throws UsageError if the file cannot be read, if it is
/// not a list of objects, and if a key is unknown or a duplicate. The members of "properties"
/// become keys of the description.
std::vector<ParsedService> readServiceFile(const std::string& name, Reading reading);

}  // namespace orvx::announce
