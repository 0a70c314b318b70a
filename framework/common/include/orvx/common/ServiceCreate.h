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

    /// The id is the registry's to give: it is not sent with a registration.
    void setId(const std::string& id);
    /// The path of the entry at the registry; a registration makes it "/" and the name if it is not
    /// set.
    void setUri(const std::string& uri);
    /// A text for people; a registration makes it the name if it is not set.
    void setDescription(const std::string& description);
    /// Where the service listens. It is sent as given, not checked.
    void setPort(long port);
    /// The versions that the service offers; a registration makes it an empty list if it is not
    /// set.
    void setVersions(const std::vector<std::string>& versions);
    /// What is needed to use the service; an empty list as above.
    void setPrivileges(const std::vector<std::string>& privileges);
    /// What kind of service it is; an empty list as above.
    void setServiceCategories(const std::vector<std::string>& categories);
};

}  // namespace orvx::common
