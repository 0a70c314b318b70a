#pragma once

#include <orvx/common/Facade.h>
#include <orvx/common/ServiceInfo.h>
#include <orvx/common/XObject.h>

#include <memory>
#include <string>
#include <vector>

namespace orvx::common {

/// The description of a service, as a registry holds it.
///
/// Thread-safety: reading, changing and assigning it from several threads at once is safe; each
/// operation is atomic by itself, but for updateServiceInfo(), which sets its values one by one.
/// Getters return copies.
/// Copying a description copies the values: the copy and the original are independent.
/// `has...` tells whether the value was set, be it to an empty text or list. Getters of values that
/// were not set return an empty text, an empty list or 0.
class ORVX_EXPORT ServiceModel : public Facade<XObject> {
  public:
    /// `object` must not be null.
    explicit ServiceModel(std::unique_ptr<XObject> object);
    ServiceModel(const ServiceModel& other);
    ServiceModel& operator=(const ServiceModel& other);
    virtual ~ServiceModel();

    /// The id that the registry gave; empty while it holds no entry.
    bool hasId() const;
    std::string getId() const;
    bool hasName() const;
    std::string getName() const;
    bool hasUri() const;
    std::string getUri() const;
    bool hasDescription() const;
    std::string getDescription() const;
    std::int64_t getPort() const;
    bool hasVersions() const;
    std::vector<std::string> getVersions() const;
    bool hasPrivileges() const;
    std::vector<std::string> getPrivileges() const;
    bool hasServiceCategories() const;
    std::vector<std::string> getServiceCategories() const;

    /// Takes over name, host and prefix, each if it is not empty, under the keys of these names.
    void updateServiceInfo(const ServiceInfo& serviceInfo);

    /// All values, for keys that have no operation here.
    GenericObject& getGenericObject();
    const GenericObject& getGenericObject() const;
};

}  // namespace orvx::common
