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
/// Thread-safety: reading, changing and assigning a description from several threads at once is
/// safe. Each operation is atomic, except updateServiceInfo(), which sets its values one by one.
/// Getters return copies.
/// Copying a description copies the values: the copy and the original are independent.
/// `has...` returns whether the value was set, even to an empty text or list; hasName() also
/// requires that the text is not empty. Getters of values that were not set, or that have another
/// type, return an empty text, an empty list or 0.
class ORVX_EXPORT ServiceModel : public Facade<XObject> {
  public:
    /// `object` must not be null.
    explicit ServiceModel(std::unique_ptr<XObject> object);
    /// Copies the values: the copy is independent.
    ServiceModel(const ServiceModel& other);
    /// Replaces all values by a copy of the other description's values.
    ServiceModel& operator=(const ServiceModel& other);
    virtual ~ServiceModel();

    /// Whether there is an id.
    bool hasId() const;
    /// The id that the registry assigned; empty while the registry holds no entry.
    std::string getId() const;
    /// Whether the name is a text that is not empty. A service without a name cannot be registered.
    bool hasName() const;
    /// The name by which the service is known.
    std::string getName() const;
    /// Whether there is a uri.
    bool hasUri() const;
    /// The path to register at. After the registration: the location that the registry returned.
    /// Empty while the registry has lost the entry.
    std::string getUri() const;
    /// Whether there is a description.
    bool hasDescription() const;
    /// The description for human readers.
    std::string getDescription() const;
    /// The port on which the service listens.
    std::int64_t getPort() const;
    /// Whether there is a list of versions.
    bool hasVersions() const;
    /// The versions that the service offers.
    std::vector<std::string> getVersions() const;
    /// Whether there is a list of privileges.
    bool hasPrivileges() const;
    /// The privileges that are needed to use the service.
    std::vector<std::string> getPrivileges() const;
    /// Whether there is a list of categories.
    bool hasServiceCategories() const;
    /// The categories of the service.
    std::vector<std::string> getServiceCategories() const;

    /// Copies name, host and prefix, each unless it is empty, to the keys of the same names.
    void updateServiceInfo(const ServiceInfo& serviceInfo);

    /// Access to all values, for keys that have no operation here.
    GenericObject& getGenericObject();
    /// Read-only access to all values.
    const GenericObject& getGenericObject() const;
};

}  // namespace orvx::common
