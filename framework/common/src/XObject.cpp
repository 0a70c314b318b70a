// The three values that every described resource has.
// Entered by the thread that constructs the object; the only lock is that of the generic object.

#include <orvx/common/XObject.h>

#include "Keys.h"

namespace orvx::common {

XObject::XObject(const std::string& id, const std::string& name, const std::string& uri) {
    using Text = std::pair<const std::string&, const std::string&>;
    for (const auto& [key, text] :
         {Text(keys().id, id), Text(keys().name, name), Text(keys().uri, uri)}) {
        if (!text.empty()) {
            setValue(key, text);
        }
    }
}

}  // namespace orvx::common
