#pragma once

#include <orvx/common/ServiceModel.h>

#include <memory>
#include <string>
#include <vector>

namespace orvx::common {

/// The description of a service to be registered.
/// Thread-safety and copying: as ServiceModel.
class ORVX_EXPORT ServiceCreate : public ServiceModel {
  public:
    /// `object` must not be null.
    explicit ServiceCreate(std::unique_ptr<XObject> object);
    ~ServiceCreate() override;
    ServiceCreate(const ServiceCreate&) = default;
    ServiceCreate& operator=(const ServiceCreate&) = default;

    /// Sets the id. The registry assigns ids: a registration does not send it.
    void setId(const std::string& id);
    /// Sets the path of the entry at the registry. Default at registration: "/" and the name.
    void setUri(const std::string& uri);
    /// Sets the description for human readers. Default at registration: the name.
    void setDescription(const std::string& description);
    /// Sets the port on which the service listens. It is sent unchecked.
    void setPort(long port);
    /// Sets the versions that the service offers. Default at registration: an empty list.
    void setVersions(const std::vector<std::string>& versions);
    /// Sets the privileges that are needed to use the service. Default at registration: an empty
    /// list.
    void setPrivileges(const std::vector<std::string>& privileges);
    /// Sets the categories of the service. Default at registration: an empty list.
    void setServiceCategories(const std::vector<std::string>& categories);
};

}  // namespace orvx::common
