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
/// `has...` tells whether the value was set, be it to an empty text or list; hasName() also wants a
/// text that is not empty. Getters of values that were not set, or to another type, return an empty
/// text, an empty list or 0.
class ORVX_EXPORT ServiceModel : public Facade<XObject> {
  public:
    /// `object` must not be null.
    explicit ServiceModel(std::unique_ptr<XObject> object);
    /// An independent copy of the values at this moment.
    ServiceModel(const ServiceModel& other);
    /// Replaces all values by a copy of the other's.
    ServiceModel& operator=(const ServiceModel& other);
    virtual ~ServiceModel();

    /// Whether there is an id.
    bool hasId() const;
    /// The id that the registry gave; empty while it holds no entry.
    std::string getId() const;
    /// Whether the name is a text that is not empty: nothing is registered without one.
    bool hasName() const;
    /// The name, by which people and registries know the service.
    std::string getName() const;
    /// Whether there is a uri.
    bool hasUri() const;
    /// The path that it is to be registered at; once it is, the location that the registry gave;
    /// empty while the registry has lost it.
    std::string getUri() const;
    /// Whether there is a description.
    bool hasDescription() const;
    /// A text for people.
    std::string getDescription() const;
    /// Where the service listens.
    std::int64_t getPort() const;
    /// Whether there is a list of versions.
    bool hasVersions() const;
    /// The versions that the service offers.
    std::vector<std::string> getVersions() const;
    /// Whether there is a list of privileges.
    bool hasPrivileges() const;
    /// What is needed to use the service.
    std::vector<std::string> getPrivileges() const;
    /// Whether there is a list of categories.
    bool hasServiceCategories() const;
    /// What kind of service it is.
    std::vector<std::string> getServiceCategories() const;

    /// Takes over name, host and prefix, each if it is not empty, under the keys of these names.
    void updateServiceInfo(const ServiceInfo& serviceInfo);

    /// All values, for keys that have no operation here.
    GenericObject& getGenericObject();
    /// As above, to be read only.
    const GenericObject& getGenericObject() const;
};

}  // namespace orvx::common
