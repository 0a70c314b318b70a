#pragma once

#include <orvx/common/ServiceModel.h>

#include <memory>
#include <string>
#include <vector>

namespace orvx::common {

/// The description of a service that is to be registered.
/// Thread-safety and copying: as ServiceModel.
class ORVX_EXPORT ServiceCreate : public ServiceModel {
  public:
    /// `object` must not be null.
    explicit ServiceCreate(std::unique_ptr<XObject> object);
    ~ServiceCreate() override;
    ServiceCreate(const ServiceCreate&) = default;
    ServiceCreate& operator=(const ServiceCreate&) = default;

    void setId(const std::string& id);
    void setUri(const std::string& uri);
    void setDescription(const std::string& description);
    void setPort(long port);
    void setVersions(const std::vector<std::string>& versions);
    void setPrivileges(const std::vector<std::string>& privileges);
    void setServiceCategories(const std::vector<std::string>& categories);
};

}  // namespace orvx::common
