#pragma once

#include <orvx/common/GenericObject.h>

namespace orvx::common {

/// A generic object that something on the network is described by: it has an id, a name and a uri
/// under the keys of those names. Thread-safety: as GenericObject.
class ORVX_EXPORT XObject : public GenericObject {
  public:
    /// An empty text leaves its value unset.
    XObject(const std::string& id, const std::string& name, const std::string& uri);
};

}  // namespace orvx::common
