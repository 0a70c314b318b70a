// The values of a generic object and the lock around them; how they become JSON is in
// GenericObjectJson.cpp.
// Entered by any thread. `mutex_` is a leaf lock: nothing is called under it but the values' own
// copying, and values that are replaced or removed are destroyed after it was let go.

#include <orvx/common/GenericObject.h>

namespace orvx::common {

using utility::MutexLock;

namespace {

/// The value under `key` if it is a T, else null.
template <typename T>
const T* findAs(const GenericObjectValue::Object& values, const std::string& key) {
    const auto found = values.find(key);
    return found == values.end() ? nullptr : std::get_if<T>(&found->second.data());
}

}  // namespace

GenericObjectValue::GenericObjectValue(const std::vector<std::string>& texts)
    : data_(List(texts.begin(), texts.end())) {}

GenericObject::GenericObject() = default;

GenericObject::GenericObject(const GenericObject& other) : values_(other.copyOfValues()) {}

GenericObject& GenericObject::operator=(const GenericObject& other) {
    // One lock after the other: two objects that are assigned to each other never hold both.
    GenericObjectValue::Object values = other.copyOfValues();
    MutexLock lock(mutex_);
    values_.swap(values);
    return *this;
}

GenericObject::~GenericObject() = default;

bool GenericObject::hasValue(const std::string& key) const {
    MutexLock lock(mutex_);
    return values_.count(key) != 0;
}

std::optional<GenericObjectValue> GenericObject::getValue(const std::string& key) const {
    MutexLock lock(mutex_);
    const auto found = values_.find(key);
    return found == values_.end() ? std::nullopt : std::make_optional(found->second);
}

std::string GenericObject::getText(const std::string& key) const {
    MutexLock lock(mutex_);
    const auto* text = findAs<std::string>(values_, key);
    return text != nullptr ? *text : std::string();
}

std::vector<std::string> GenericObject::getTexts(const std::string& key) const {
    std::vector<std::string> texts;
    MutexLock lock(mutex_);
    if (const auto* list = findAs<GenericObjectValue::List>(values_, key)) {
        for (const GenericObjectValue& value : *list) {
            if (const auto* text = std::get_if<std::string>(&value.data())) {
                texts.push_back(*text);
            }
        }
    }
    return texts;
}

void GenericObject::setValue(const std::string& key, GenericObjectValue value) {
    MutexLock lock(mutex_);
    std::swap(values_[key], value);
}

void GenericObject::removeValue(const std::string& key) {
    GenericObjectValue::Object::node_type removed;
    MutexLock lock(mutex_);
    removed = values_.extract(key);
}

GenericObjectValue::Object GenericObject::copyOfValues() const {
    MutexLock lock(mutex_);
    return values_;
}

}  // namespace orvx::common
