// The three values that every described thing has.
// A constructor only: one thread, no lock beside the one of the generic object.

#include <orvx/common/XObject.h>

#include "Keys.h"

namespace orvx::common {

XObject::XObject(const std::string& id, const std::string& name, const std::string& uri) {
    for (const auto& [key, text] : {std::pair(key::id, id), {key::name, name}, {key::uri, uri}}) {
        if (!text.empty()) {
            setValue(key, text);
        }
    }
}

}  // namespace orvx::common
