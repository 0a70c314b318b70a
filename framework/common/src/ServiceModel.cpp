// Named access to the values of a description.
// Entered by any thread. The lock is that of the generic object, taken once for each operation and
// value. Assignment copies the values, so a model refers to the same object for its whole life.

#include <orvx/common/ServiceModel.h>

#include "Keys.h"

namespace orvx::common {

namespace {

/// Stores a copy in the same block of memory as the reference.
class CopyOwner : public IReference<XObject> {
  public:
    // NOLINTNEXTLINE(modernize-pass-by-value): the value is copied in place, not moved.
    explicit CopyOwner(const XObject& original) : copy_(original) {}

    XObject& get() override { return copy_; }
    const XObject& get() const override { return copy_; }

  private:
    XObject copy_;
};

}  // namespace

ServiceModel::ServiceModel(std::unique_ptr<XObject> object)
    : Facade(std::make_shared<ReferenceOwner<XObject>>(std::move(object))) {}

ServiceModel::ServiceModel(const ServiceModel& other)
    : Facade(std::make_shared<CopyOwner>(other.object())) {}

ServiceModel& ServiceModel::operator=(const ServiceModel& other) {
    object() = other.object();
    return *this;
}

ServiceModel::~ServiceModel() = default;

bool ServiceModel::hasId() const {
    return object().hasValue(keys().id);
}

std::string ServiceModel::getId() const {
    return object().getText(keys().id);
}

bool ServiceModel::hasName() const {
    return !getName().empty();
}

std::string ServiceModel::getName() const {
    return object().getText(keys().name);
}

bool ServiceModel::hasUri() const {
    return object().hasValue(keys().uri);
}

std::string ServiceModel::getUri() const {
    return object().getText(keys().uri);
}

bool ServiceModel::hasDescription() const {
    return object().hasValue(keys().description);
}

std::string ServiceModel::getDescription() const {
    return object().getText(keys().description);
}

std::int64_t ServiceModel::getPort() const {
    const auto value = object().getValue(keys().port);
    const auto* port = value ? std::get_if<std::int64_t>(&value->data()) : nullptr;
    return port != nullptr ? *port : 0;
}

bool ServiceModel::hasVersions() const {
    return object().hasValue(keys().versions);
}

std::vector<std::string> ServiceModel::getVersions() const {
    return object().getTexts(keys().versions);
}

bool ServiceModel::hasPrivileges() const {
    return object().hasValue(keys().privileges);
}

std::vector<std::string> ServiceModel::getPrivileges() const {
    return object().getTexts(keys().privileges);
}

bool ServiceModel::hasServiceCategories() const {
    return object().hasValue(keyOfServiceCategories());
}

std::vector<std::string> ServiceModel::getServiceCategories() const {
    return object().getTexts(keyOfServiceCategories());
}

void ServiceModel::updateServiceInfo(const ServiceInfo& serviceInfo) {
    using Text = std::pair<const std::string&, const std::string&>;
    for (const auto& [key, text] :
         {Text(keys().name, serviceInfo.getName()), Text(keys().host, serviceInfo.getHost()),
          Text(keys().prefix, serviceInfo.getPrefix())}) {
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
