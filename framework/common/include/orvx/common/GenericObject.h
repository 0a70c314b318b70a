#pragma once

#include <orvx/utility/Export.h>
#include <orvx/utility/Mutex.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace orvx::common {

/// A value of one of the JSON types. A value type: copies are deep. Copying, comparing and writing
/// recurse: keep the nesting below a thousand levels.
class ORVX_EXPORT GenericObjectValue {
  public:
    using List = std::vector<GenericObjectValue>;
    using Object = std::map<std::string, GenericObjectValue>;
    using Data =
        std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, List, Object>;

    GenericObjectValue() = default;
    GenericObjectValue(std::nullptr_t) {}
    GenericObjectValue(bool value) : data_(value) {}
    GenericObjectValue(int value) : data_(std::int64_t{value}) {}
    GenericObjectValue(std::int64_t value) : data_(value) {}
    GenericObjectValue(double value) : data_(value) {}
    GenericObjectValue(const char* value) : data_(std::string(value)) {}
    GenericObjectValue(std::string value) : data_(std::move(value)) {}
    GenericObjectValue(List value) : data_(std::move(value)) {}
    GenericObjectValue(Object value) : data_(std::move(value)) {}
    GenericObjectValue(const std::vector<std::string>& texts);

    const Data& data() const { return data_; }

    bool operator==(const GenericObjectValue& other) const { return data_ == other.data_; }
    bool operator!=(const GenericObjectValue& other) const { return !(*this == other); }

  private:
    Data data_;
};

/// A collection of values by key, written as a JSON object.
///
/// Thread-safety: safe by itself; every operation may be called from any thread, several at once.
/// Getters return copies. Copying and assigning copy the values.
class ORVX_EXPORT GenericObject {
  public:
    GenericObject();
    GenericObject(const GenericObject& other);
    GenericObject& operator=(const GenericObject& other);
    virtual ~GenericObject();

    bool hasValue(const std::string& key) const;
    /// Empty when there is no such key.
    std::optional<GenericObjectValue> getValue(const std::string& key) const;
    /// The text under `key`; an empty one when there is none or it is not a text.
    std::string getText(const std::string& key) const;
    /// The texts of the list under `key`; an empty list when there is none or it is not a list.
    std::vector<std::string> getTexts(const std::string& key) const;
    /// Adds the value or replaces the one that is there.
    void setValue(const std::string& key, GenericObjectValue value);
    /// A missing key is no error.
    void removeValue(const std::string& key);

    /// Writes the object as JSON in UTF-8, keys in ascending order, on one line, or indented by
    /// four when `pretty`. Not a number and the infinities become null. Throws a std::exception
    /// when a text is not valid UTF-8; nothing has been written then.
    void toJSONStream(std::ostream& stream, bool pretty) const;

  private:
    GenericObjectValue::Object copyOfValues() const;

    mutable utility::Mutex mutex_;
    GenericObjectValue::Object values_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::common
