#pragma once

#include <orvx/utility/Export.h>
#include <orvx/utility/Mutex.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace orvx::common {

class GenericObjectValue;

/// Values by key, in ascending order of the keys, in one block of memory, which is small and fast
/// for the few values of an object. A value type. Not synchronised.
class ORVX_EXPORT GenericObjectMembers {
  public:
    /// A key and the value under it.
    using Member = std::pair<std::string, GenericObjectValue>;

    GenericObjectMembers() = default;
    /// If a key occurs several times, the last value is stored.
    GenericObjectMembers(std::initializer_list<Member> members);

    /// The value for `key`. Adds a null value if the key is missing.
    GenericObjectValue& operator[](const std::string& key);
    /// The value for `key`, or a null pointer if the key is missing. Valid until the next change.
    const GenericObjectValue* find(const std::string& key) const;
    /// Removes the value for `key` and returns it; returns null if the key is missing.
    GenericObjectValue extract(const std::string& key);

    /// Whether there is no member.
    bool empty() const;
    /// The first member, in the order of the keys; valid until the next change.
    const Member* begin() const;
    /// The position after the last member.
    const Member* end() const;

    /// Whether the keys and their values are the same.
    bool operator==(const GenericObjectMembers& other) const;

  private:
    friend class GenericObject;

    GenericObjectMembers(const GenericObjectMembers& other, std::size_t room);
    std::size_t placeOf(const std::string& key) const;
    bool isAt(std::size_t place, const std::string& key) const;
    void insert(std::size_t place, Member added);

    std::vector<Member> members_;
};

/// A value of one of the JSON types. A value type: copies are deep. Copying, comparing and writing
/// are recursive: keep the nesting below a thousand levels.
class ORVX_EXPORT GenericObjectValue {
    // std::int8_t and std::uint8_t are not character types here: they differ from `char`.
    template <typename T>
    static constexpr bool isCharacter = std::is_same_v<T, char> || std::is_same_v<T, wchar_t> ||
                                        std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

  public:
    /// A JSON array.
    using List = std::vector<GenericObjectValue>;
    /// A JSON object.
    using Object = GenericObjectMembers;
    /// One alternative for each JSON type. Whole numbers and floating-point numbers are distinct
    /// types. A whole number is stored as std::int64_t, or as std::uint64_t if it is too large for
    /// std::int64_t.
    using Data = std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, List, Object,
                              std::uint64_t>;

    GenericObjectValue() = default;
    /// Null, as made by the default constructor.
    GenericObjectValue(std::nullptr_t) {}
    /// A boolean, or a number of any integer or floating-point type. A character type such as
    /// `char` does not compile. A number that JSON cannot represent is written as null: see
    /// GenericObject::toJSONStream().
    template <typename T, std::enable_if_t<std::is_arithmetic_v<T> && !isCharacter<T>, int> = 0>
    GenericObjectValue(T value) : data_(toData(value)) {}
    /// Copies a text in UTF-8; must not be null.
    GenericObjectValue(const char* value) : data_(std::string(value)) {}
    /// A text in UTF-8. Any other text is stored, and refused when it is written.
    GenericObjectValue(std::string value) : data_(std::move(value)) {}
    /// Copies a text in UTF-8. Any other text is refused when it is written.
    GenericObjectValue(std::string_view value) : data_(std::string(value)) {}
    /// An array of values.
    GenericObjectValue(List value) : data_(std::move(value)) {}
    /// An object of values by key.
    GenericObjectValue(Object value) : data_(std::move(value)) {}
    /// An array of texts.
    GenericObjectValue(const std::vector<std::string>& texts);

    /// The stored alternative, for std::visit() and std::get_if().
    const Data& data() const { return data_; }

    /// Whether type and value are equal: 1 and 1.0 are not.
    bool operator==(const GenericObjectValue& other) const { return data_ == other.data_; }
    /// The opposite of `==`.
    bool operator!=(const GenericObjectValue& other) const { return !(*this == other); }

  private:
    template <typename T>
    static Data toData(T value) {
        if constexpr (std::is_same_v<T, bool>) {
            return value;
        } else if constexpr (std::is_floating_point_v<T>) {
            return static_cast<double>(value);
        } else if constexpr (std::is_signed_v<T> || sizeof(T) < sizeof(std::int64_t)) {
            return std::int64_t{value};
        } else {
            constexpr std::uint64_t kLargest = std::numeric_limits<std::int64_t>::max();
            return value <= kLargest ? Data(static_cast<std::int64_t>(value))
                                     : Data(std::uint64_t{value});
        }
    }

    Data data_;
};

/// A collection of values by key, written as a JSON object.
///
/// Thread-safety: safe by itself; every operation may be called from any thread, several at once.
/// Getters return copies. Copying and assigning copy the values.
class ORVX_EXPORT GenericObject {
  public:
    GenericObject();
    /// Copies the values. Later changes of one object do not affect the other.
    GenericObject(const GenericObject& other);
    /// Replaces all values by a copy of the other object's values.
    GenericObject& operator=(const GenericObject& other);
    virtual ~GenericObject();

    /// Whether the key exists. Its value may be null or empty.
    bool hasValue(const std::string& key) const;
    /// The value for `key`; absent if the key does not exist.
    std::optional<GenericObjectValue> getValue(const std::string& key) const;
    /// The text for `key`; empty if the key does not exist or the value is no text.
    std::string getText(const std::string& key) const;
    /// The texts of the list for `key`; empty if the key does not exist or the value is no list.
    std::vector<std::string> getTexts(const std::string& key) const;
    /// Adds or replaces the value.
    void setValue(const std::string& key, GenericObjectValue value);
    /// Removes the value. A missing key is no error.
    void removeValue(const std::string& key);

    /// Writes the object as JSON in UTF-8, with the keys in ascending order, on one line, or
    /// indented by four spaces if `pretty` is set. NaN and infinities are written as null. Throws a
    /// std::exception if a text is not valid UTF-8; nothing has been written then.
    void toJSONStream(std::ostream& stream, bool pretty) const;

  private:
    GenericObjectMembers copyOfValues() const;

    mutable utility::Mutex mutex_;
    GenericObjectMembers values_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::common
