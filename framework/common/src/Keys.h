#pragma once

#include <string>

namespace orvx::common {

/// The keys of a description's values, in memory and in JSON, as the texts that look-ups take: none
/// is made for a look-up.
struct Keys {
    const std::string id = "id";
    const std::string name = "name";
    const std::string host = "host";
    const std::string port = "port";
    const std::string prefix = "prefix";
    const std::string uri = "uri";
    const std::string description = "description";
    const std::string versions = "versions";
    const std::string privileges = "privileges";
    const std::string serviceCategories = "serviceCategories";
};

/// Never destroyed: threads may use descriptions until the process ends.
inline const Keys& keys() {
    static const Keys& all = *new Keys;
    return all;
}

}  // namespace orvx::common
