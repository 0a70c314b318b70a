#pragma once

#include <orvx/common/GenericObject.h>

namespace orvx::common {

/// A generic object that describes a resource on the network: its id, name and uri are stored under
/// the keys of those names. Thread-safety: as GenericObject.
class ORVX_EXPORT XObject : public GenericObject {
  public:
    /// An empty text leaves its key unset.
    XObject(const std::string& id, const std::string& name, const std::string& uri);
};

}  // namespace orvx::common
