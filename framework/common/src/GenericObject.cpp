// The values of a generic object and the lock around them; how they become JSON is in
// GenericObjectJson.cpp.
// Entered by any thread. `mutex_` is a leaf lock: nothing is called under it but the values' own
// copying, and values that are replaced or removed are destroyed after it was let go.

#include <orvx/common/GenericObject.h>

#include <algorithm>

namespace orvx::common {

using utility::MutexLock;

namespace {

/// The value under `key` if it is a T, else null.
template <typename T>
const T* findAs(const GenericObjectMembers& values, const std::string& key) {
    const GenericObjectValue* const found = values.find(key);
    return found == nullptr ? nullptr : std::get_if<T>(&found->data());
}

}  // namespace

GenericObjectMembers::GenericObjectMembers(std::initializer_list<Member> members) {
    for (const auto& [key, value] : members) {
        (*this)[key] = value;
    }
}

GenericObjectValue& GenericObjectMembers::operator[](const std::string& key) {
    const std::size_t place = placeOf(key);
    if (!isAt(place, key)) {
        Member added(key, GenericObjectValue());
        if (members_.size() == members_.capacity()) {
            // A vector that doubles would leave half of the memory unused.
            members_.reserve(members_.size() + std::max<std::size_t>(4, members_.size() / 4));
        }
        members_.insert(members_.begin() + static_cast<std::ptrdiff_t>(place), std::move(added));
    }
    return members_[place].second;
}

const GenericObjectValue* GenericObjectMembers::find(const std::string& key) const {
    const std::size_t place = placeOf(key);
    return isAt(place, key) ? &members_[place].second : nullptr;
}

GenericObjectValue GenericObjectMembers::extract(const std::string& key) {
    const std::size_t place = placeOf(key);
    if (!isAt(place, key)) {
        return {};
    }
    GenericObjectValue extracted = std::move(members_[place].second);
    members_.erase(members_.begin() + static_cast<std::ptrdiff_t>(place));
    return extracted;
}

bool GenericObjectMembers::empty() const {
    return members_.empty();
}

const GenericObjectMembers::Member* GenericObjectMembers::begin() const {
    return members_.data();
}

const GenericObjectMembers::Member* GenericObjectMembers::end() const {
    return members_.data() + members_.size();
}

bool GenericObjectMembers::operator==(const GenericObjectMembers& other) const {
    return members_ == other.members_;
}

/// Where `key` is or belongs.
std::size_t GenericObjectMembers::placeOf(const std::string& key) const {
    const auto found = std::lower_bound(
        members_.begin(), members_.end(), key,
        [](const Member& member, const std::string& wanted) { return member.first < wanted; });
    return static_cast<std::size_t>(found - members_.begin());
}

bool GenericObjectMembers::isAt(std::size_t place, const std::string& key) const {
    return place < members_.size() && members_[place].first == key;
}

GenericObjectValue::GenericObjectValue(const std::vector<std::string>& texts)
    : data_(List(texts.begin(), texts.end())) {}

GenericObject::GenericObject() = default;

GenericObject::GenericObject(const GenericObject& other) : values_(other.copyOfValues()) {}

GenericObject& GenericObject::operator=(const GenericObject& other) {
    // One lock after the other: two objects that are assigned to each other never hold both.
    GenericObjectMembers values = other.copyOfValues();
    MutexLock lock(mutex_);
    std::swap(values_, values);
    return *this;
}

GenericObject::~GenericObject() = default;

bool GenericObject::hasValue(const std::string& key) const {
    MutexLock lock(mutex_);
    return values_.find(key) != nullptr;
}

std::optional<GenericObjectValue> GenericObject::getValue(const std::string& key) const {
    MutexLock lock(mutex_);
    const GenericObjectValue* const found = values_.find(key);
    return found == nullptr ? std::nullopt : std::make_optional(*found);
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
    GenericObjectValue removed;
    MutexLock lock(mutex_);
    removed = values_.extract(key);
}

GenericObjectMembers GenericObject::copyOfValues() const {
    MutexLock lock(mutex_);
    return values_;
}

}  // namespace orvx::common
