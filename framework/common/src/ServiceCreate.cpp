// The setters of a description to be registered.
// Entered by any thread. The lock is that of the generic object, taken once in each setter.

#include <orvx/common/ServiceCreate.h>

#include "Keys.h"

namespace orvx::common {

ServiceCreate::ServiceCreate(std::unique_ptr<XObject> object) : ServiceModel(std::move(object)) {}

ServiceCreate::~ServiceCreate() = default;

void ServiceCreate::setId(const std::string& id) {
    object().setValue(keys().id, id);
}

void ServiceCreate::setUri(const std::string& uri) {
    object().setValue(keys().uri, uri);
}

void ServiceCreate::setDescription(const std::string& description) {
    object().setValue(keys().description, description);
}

void ServiceCreate::setPort(long port) {
    object().setValue(keys().port, std::int64_t{port});
}

void ServiceCreate::setVersions(const std::vector<std::string>& versions) {
    object().setValue(keys().versions, versions);
}

void ServiceCreate::setPrivileges(const std::vector<std::string>& privileges) {
    object().setValue(keys().privileges, privileges);
}

void ServiceCreate::setServiceCategories(const std::vector<std::string>& categories) {
    object().setValue(keyOfServiceCategories(), categories);
}

}  // namespace orvx::common
