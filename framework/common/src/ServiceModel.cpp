// Names for the values of a description.
// Entered by any thread; the lock is that of the generic object beneath, taken once per operation
// and value. Assigning goes through the values, so the handle is the same for a model's whole life.

#include <orvx/common/ServiceModel.h>

#include "Keys.h"

namespace orvx::common {

ServiceModel::ServiceModel(std::unique_ptr<XObject> object)
    : Facade(std::make_shared<ReferenceOwner<XObject>>(std::move(object))) {}

ServiceModel::ServiceModel(const ServiceModel& other)
    : ServiceModel(std::make_unique<XObject>(other.object())) {}

ServiceModel& ServiceModel::operator=(const ServiceModel& other) {
    object() = other.object();
    return *this;
}

ServiceModel::~ServiceModel() = default;

bool ServiceModel::hasId() const {
    return object().hasValue(key::id);
}

std::string ServiceModel::getId() const {
    return object().getText(key::id);
}

bool ServiceModel::hasName() const {
    return !getName().empty();
}

std::string ServiceModel::getName() const {
    return object().getText(key::name);
}

bool ServiceModel::hasUri() const {
    return object().hasValue(key::uri);
}

std::string ServiceModel::getUri() const {
    return object().getText(key::uri);
}

bool ServiceModel::hasDescription() const {
    return object().hasValue(key::description);
}

std::string ServiceModel::getDescription() const {
    return object().getText(key::description);
}

std::int64_t ServiceModel::getPort() const {
    const auto value = object().getValue(key::port);
    const auto* port = value ? std::get_if<std::int64_t>(&value->data()) : nullptr;
    return port != nullptr ? *port : 0;
}

bool ServiceModel::hasVersions() const {
    return object().hasValue(key::versions);
}

std::vector<std::string> ServiceModel::getVersions() const {
    return object().getTexts(key::versions);
}

bool ServiceModel::hasPrivileges() const {
    return object().hasValue(key::privileges);
}

std::vector<std::string> ServiceModel::getPrivileges() const {
    return object().getTexts(key::privileges);
}

bool ServiceModel::hasServiceCategories() const {
    return object().hasValue(key::serviceCategories);
}

std::vector<std::string> ServiceModel::getServiceCategories() const {
    return object().getTexts(key::serviceCategories);
}

void ServiceModel::updateServiceInfo(const ServiceInfo& serviceInfo) {
    for (const auto& [key, text] : {std::pair(key::name, serviceInfo.getName()),
                                    {key::host, serviceInfo.getHost()},
                                    {key::prefix, serviceInfo.getPrefix()}}) {
        if (!text.empty()) {
            object().setValue(key, text);
        }
    }
}

GenericObject& ServiceModel::getGenericObject() {
    return object();
}

const GenericObject& ServiceModel::getGenericObject() const {
    return object();
}

}  // namespace orvx::common
