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

/// Never destroyed: threads may use descriptions until the process ends. In place, so that a
/// plug-in that is loaded and unloaded many times loses the one long text each time and no more.
inline const Keys& keys() {
    union NeverDestroyed {
        const Keys keys;
        NeverDestroyed() : keys() {}
        ~NeverDestroyed() {}
    };
    static const NeverDestroyed all;
    return all.keys;
}

}  // namespace orvx::common
