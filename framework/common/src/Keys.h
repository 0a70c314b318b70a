#pragma once

#include <string>

namespace orvx::common {

/// The keys of a description's values, in memory and in JSON. They are std::string, so that a
/// look-up makes no temporary text.
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
};

/// Made for each use: this text is too long for the small-string optimisation.
inline std::string keyOfServiceCategories() {
    return "serviceCategories";
}

/// Never destroyed: threads may use descriptions until the process ends. The texts need no heap
/// memory, so a plug-in that is loaded and unloaded many times leaks nothing.
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
