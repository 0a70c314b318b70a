// The values of a generic object and the lock around them. GenericObjectJson.cpp writes them as
// JSON.
// Entered by any thread. `mutex_` is a leaf lock: only the copying of values happens under it.
// Values that are replaced or removed are destroyed after unlocking.

#include <orvx/common/GenericObject.h>

#include <algorithm>
#include <iterator>

namespace orvx::common {

using utility::MutexLock;

namespace {

/// The value for `key` if it is a T; null otherwise.
template <typename T>
const T* findAs(const GenericObjectMembers& values, const std::string& key) {
    const GenericObjectValue* const found = values.find(key);
    return found == nullptr ? nullptr : std::get_if<T>(&found->data());
}

}  // namespace

GenericObjectMembers::GenericObjectMembers(const GenericObjectMembers& other, std::size_t room) {
    members_.reserve(other.members_.size() + room);
    members_.insert(members_.end(), other.members_.begin(), other.members_.end());
}

GenericObjectMembers::GenericObjectMembers(std::initializer_list<Member> members) {
    for (const auto& [key, value] : members) {
        (*this)[key] = value;
    }
}

GenericObjectValue& GenericObjectMembers::operator[](const std::string& key) {
    const std::size_t place = placeOf(key);
    if (!isAt(place, key)) {
        insert(place, Member(key, GenericObjectValue()));
    }
    return members_[place].second;
}

// Growing and inserting share one pass, because moving the members is the cost of both.
void GenericObjectMembers::insert(std::size_t place, Member added) {
    const auto position = members_.begin() + static_cast<std::ptrdiff_t>(place);
    const std::size_t size = members_.size();
    if (size < members_.capacity()) {
        members_.insert(position, std::move(added));
        return;
    }
    std::vector<Member> grown;
    // A vector that doubles its size would leave half of the memory unused.
    grown.reserve(size + std::max<std::size_t>(4, size / 4));
    std::move(members_.begin(), position, std::back_inserter(grown));
    grown.push_back(std::move(added));
    std::move(position, members_.end(), std::back_inserter(grown));
    members_ = std::move(grown);
}

// Among few members a linear search is faster than a binary search, because most keys differ in
// length.
const GenericObjectValue* GenericObjectMembers::find(const std::string& key) const {
    constexpr std::size_t kFew = 16;
    if (members_.size() > kFew) {
        const std::size_t place = placeOf(key);
        return isAt(place, key) ? &members_[place].second : nullptr;
    }
    for (const Member& member : members_) {
        if (member.first == key) {
            return &member.second;
        }
    }
    return nullptr;
}

GenericObjectValue GenericObjectMembers::extract(const std::string& key) {
    if (find(key) == nullptr) {
        return {};
    }
    const auto member = members_.begin() + static_cast<std::ptrdiff_t>(placeOf(key));
    GenericObjectValue extracted = std::move(member->second);
    members_.erase(member);
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

/// The position of `key`, or the position at which `key` would be inserted.
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
    // Locks one object at a time: two threads that assign two objects to each other cannot
    // deadlock.
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

// Reserves room for one more value: the id, which a registered copy receives later.
GenericObjectMembers GenericObject::copyOfValues() const {
    MutexLock lock(mutex_);
    return GenericObjectMembers(values_, 1);
}

}  // namespace orvx::common
