// The setters of a description that is to be registered.
// Entered by any thread; the lock is that of the generic object beneath, taken once per setter.

#include <orvx/common/ServiceCreate.h>

#include "Keys.h"

namespace orvx::common {

ServiceCreate::ServiceCreate(std::unique_ptr<XObject> object) : ServiceModel(std::move(object)) {}

ServiceCreate::~ServiceCreate() = default;

void ServiceCreate::setId(const std::string& id) {
    object().setValue(key::id, id);
}

void ServiceCreate::setUri(const std::string& uri) {
    object().setValue(key::uri, uri);
}

void ServiceCreate::setDescription(const std::string& description) {
    object().setValue(key::description, description);
}

void ServiceCreate::setPort(long port) {
    object().setValue(key::port, std::int64_t{port});
}

void ServiceCreate::setVersions(const std::vector<std::string>& versions) {
    object().setValue(key::versions, versions);
}

void ServiceCreate::setPrivileges(const std::vector<std::string>& privileges) {
    object().setValue(key::privileges, privileges);
}

void ServiceCreate::setServiceCategories(const std::vector<std::string>& categories) {
    object().setValue(key::serviceCategories, categories);
}

}  // namespace orvx::common
