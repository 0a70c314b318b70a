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

/// Values by key, in ascending order of the keys, in one block of memory: for the few that an
/// object has that is small and fast. A value type; no thread-safety of its own.
class ORVX_EXPORT GenericObjectMembers {
  public:
    /// A key and the value under it.
    using Member = std::pair<std::string, GenericObjectValue>;

    GenericObjectMembers() = default;
    /// Of several with one key the last one counts.
    GenericObjectMembers(std::initializer_list<Member> members);

    /// The value under `key`, added as null when there is none.
    GenericObjectValue& operator[](const std::string& key);
    /// Null when there is none; valid until the next change.
    const GenericObjectValue* find(const std::string& key) const;
    /// Takes the value out; null when there is none.
    GenericObjectValue extract(const std::string& key);

    /// Whether there is no value at all.
    bool empty() const;
    /// The first member, in the order of the keys; valid until the next change.
    const Member* begin() const;
    /// Behind the last member.
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
/// recurse: keep the nesting below a thousand levels.
class ORVX_EXPORT GenericObjectValue {
    // Not the one-byte integers std::int8_t and std::uint8_t: they are types of their own.
    template <typename T>
    static constexpr bool isCharacter = std::is_same_v<T, char> || std::is_same_v<T, wchar_t> ||
                                        std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

  public:
    /// A JSON array.
    using List = std::vector<GenericObjectValue>;
    /// A JSON object.
    using Object = GenericObjectMembers;
    /// One alternative for each JSON type; whole and other numbers are told apart. A whole number
    /// is a std::int64_t; only one that is too large for it is a std::uint64_t.
    using Data = std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, List, Object,
                              std::uint64_t>;

    GenericObjectValue() = default;
    /// Null, which is also what the default constructor makes.
    GenericObjectValue(std::nullptr_t) {}
    /// True or false, or a number of any integer or floating-point type; a character type such as
    /// `char` does not compile. What JSON cannot hold is written as null: see
    /// GenericObject::toJSONStream().
    template <typename T, std::enable_if_t<std::is_arithmetic_v<T> && !isCharacter<T>, int> = 0>
    GenericObjectValue(T value) : data_(toData(value)) {}
    /// A text in UTF-8, copied; must not be null.
    GenericObjectValue(const char* value) : data_(std::string(value)) {}
    /// A text in UTF-8; anything else is stored, and refused when it is written.
    GenericObjectValue(std::string value) : data_(std::move(value)) {}
    /// A text in UTF-8, copied; as above.
    GenericObjectValue(std::string_view value) : data_(std::string(value)) {}
    /// An array of values.
    GenericObjectValue(List value) : data_(std::move(value)) {}
    /// An object of values by key.
    GenericObjectValue(Object value) : data_(std::move(value)) {}
    /// An array of texts.
    GenericObjectValue(const std::vector<std::string>& texts);

    /// The value itself, for std::visit() and std::get_if().
    const Data& data() const { return data_; }

    /// Whether type and value are the same: 1 and 1.0 are not.
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
            constexpr std::uint64_t largest = std::numeric_limits<std::int64_t>::max();
            return value <= largest ? Data(static_cast<std::int64_t>(value))
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
    /// A copy of the values at this moment; what becomes of one does not touch the other.
    GenericObject(const GenericObject& other);
    /// Replaces all values by a copy of the other's.
    GenericObject& operator=(const GenericObject& other);
    virtual ~GenericObject();

    /// Whether there is a value under `key`, be it null or empty.
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
    GenericObjectMembers copyOfValues() const;

    mutable utility::Mutex mutex_;
    GenericObjectMembers values_ ORVX_GUARDED_BY(mutex_);
};

}  // namespace orvx::common
