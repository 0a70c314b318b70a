// Values and their collection, used by one thread.

#include <gtest/gtest.h>
#include <orvx/common/GenericObject.h>
#include <orvx/common/XObject.h>

#include <limits>
#include <memory>

namespace orvx::common {
namespace {

using Value = GenericObjectValue;
using Texts = std::vector<std::string>;

TEST(TheGenericObjectValue, IsNullByDefault) {
    EXPECT_TRUE(std::holds_alternative<std::nullptr_t>(Value().data()));
}

TEST(TheGenericObjectValue, KeepsTheTypeItWasMadeFrom) {
    EXPECT_TRUE(std::get<bool>(Value(true).data()));
    EXPECT_EQ(std::get<std::int64_t>(Value(7).data()), 7);
    EXPECT_EQ(std::get<std::int64_t>(Value(std::numeric_limits<std::int64_t>::min()).data()),
              std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(std::get<double>(Value(1.5).data()), 1.5);
    EXPECT_EQ(std::get<std::string>(Value("literal").data()), "literal");
    EXPECT_EQ(std::get<std::string>(Value(std::string("text")).data()), "text");
    EXPECT_EQ(std::get<Value::List>(Value(Value::List{1, "two"}).data()).size(), 2U);
    const Value object(Value::Object{{"key", 1}});
    EXPECT_EQ(*std::get<Value::Object>(object.data()).find("key"), Value(1));
}

template <typename T>
constexpr bool kIsTaken = std::is_constructible_v<Value, T>;

TEST(TheGenericObjectValue, IsNotMadeFromACharacterOrAPointer) {
    static_assert(!kIsTaken<char> && !kIsTaken<wchar_t> && !kIsTaken<char16_t> &&
                  !kIsTaken<char32_t>);
    static_assert(!kIsTaken<void*> && !kIsTaken<const int*> && !kIsTaken<std::string*>);
    static_assert(!kIsTaken<volatile char*> && !kIsTaken<void (*)()> && !kIsTaken<int Value::*>);
    static_assert(!kIsTaken<const unsigned char*> && !kIsTaken<std::shared_ptr<int>>);
    static_assert(kIsTaken<const char*> && kIsTaken<char*> && kIsTaken<const char(&)[3]>);
    static_assert(kIsTaken<std::nullptr_t> && kIsTaken<bool>);
}

template <typename T>
class EachIntegerType : public ::testing::Test {};
using IntegerTypes = ::testing::Types<signed char, unsigned char, short, unsigned short, int,
                                      unsigned, long, unsigned long, long long, unsigned long long>;
TYPED_TEST_SUITE(EachIntegerType, IntegerTypes, );  // clang requires the comma

TYPED_TEST(EachIntegerType, MakesAGenericObjectValueOfTheSameNumber) {
    const auto lowest = std::numeric_limits<TypeParam>::min();
    EXPECT_EQ(std::get<std::int64_t>(Value(lowest).data()), static_cast<std::int64_t>(lowest));
    EXPECT_EQ(Value(TypeParam{7}), Value(std::int64_t{7}));
    const auto highest = std::numeric_limits<TypeParam>::max();
    const Value value(highest);
    if (const auto* number = std::get_if<std::uint64_t>(&value.data())) {
        EXPECT_EQ(*number, std::numeric_limits<std::uint64_t>::max());
    } else {
        EXPECT_EQ(std::get<std::int64_t>(value.data()), static_cast<std::int64_t>(highest));
    }
}

TEST(TheGenericObjectValue, IsUnsignedOnlyWhenTheNumberIsTooLargeForASignedOne) {
    const std::uint64_t largest = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(Value(largest), Value(std::numeric_limits<std::int64_t>::max()));
    EXPECT_EQ(std::get<std::uint64_t>(Value(largest + 1).data()), largest + 1);
    EXPECT_NE(Value(largest + 1), Value(std::numeric_limits<std::int64_t>::min()));
}

TEST(TheGenericObjectValue, IsMadeFromAFloatAndFromAViewOfAText) {
    EXPECT_EQ(Value(1.5F), Value(1.5));
    EXPECT_EQ(Value(std::string_view("a\0b", 3)), Value(std::string("a\0b", 3)));
}

TEST(TheGenericObjectValue, MakesAListOfTexts) {
    EXPECT_EQ(Value(Texts{"a", "", "c"}), Value(Value::List{"a", "", "c"}));
    EXPECT_EQ(Value(Texts{}), Value(Value::List{}));
}

TEST(TheGenericObjectValue, IsEqualToOneOfTheSameTypeAndContentOnly) {
    EXPECT_EQ(Value(Value::List{1, Value::Object{{"a", 2}}}),
              Value(Value::List{1, Value::Object{{"a", 2}}}));
    EXPECT_NE(Value(Value::List{1, Value::Object{{"a", 2}}}),
              Value(Value::List{1, Value::Object{{"a", 3}}}));
    EXPECT_NE(Value(1), Value(1.0));
    EXPECT_NE(Value(1), Value(true));
    EXPECT_NE(Value("1"), Value(1));
    EXPECT_NE(Value(), Value(false));
}

TEST(TheGenericObjectValue, IsCopiedWithAllThatIsInIt) {
    Value original(Value::List{Value::Object{{"key", "before"}}});
    const Value copy(original);
    original = Value(Value::List{});
    EXPECT_EQ(copy, Value(Value::List{Value::Object{{"key", "before"}}}));
}

/// The keys in the order of the iteration.
Texts keysOf(const GenericObjectMembers& members) {
    Texts keys;
    for (const auto& member : members) {
        keys.push_back(member.first);
    }
    return keys;
}

TEST(TheMembersOfAGenericObject, AreInTheOrderOfTheirKeysHoweverTheyWereAdded) {
    GenericObjectMembers members{{"d", 1}, {"b", 2}};
    for (const char* const key : {"e", "a", "c", "", "b"}) {
        members[key] = key;
    }
    EXPECT_EQ(keysOf(members), (Texts{"", "a", "b", "c", "d", "e"}));
    EXPECT_EQ(*members.find("b"), Value("b"));
    EXPECT_EQ(*members.find("d"), Value(1));
}

TEST(TheMembersOfAGenericObject, AreThereOnce) {
    const GenericObjectMembers members{{"a", 1}, {"b", 2}, {"a", 3}};
    EXPECT_EQ(keysOf(members), (Texts{"a", "b"}));
    EXPECT_EQ(*members.find("a"), Value(3)) << "the last one counts";
}

TEST(TheMembersOfAGenericObject, AreGivenBackWhenTheyAreTakenOut) {
    GenericObjectMembers members{{"a", 1}, {"b", 2}};
    EXPECT_EQ(members.extract("a"), Value(1));
    EXPECT_EQ(members.extract("a"), Value());
    EXPECT_EQ(members.extract("c"), Value());
    EXPECT_EQ(members.find("a"), nullptr);
    EXPECT_FALSE(members.empty());
    EXPECT_EQ(members.extract("b"), Value(2));
    EXPECT_TRUE(members.empty());
}

TEST(TheMembersOfAGenericObject, MayBeMany) {
    GenericObjectMembers members;
    for (int i = 999; i >= 0; --i) {
        members[std::to_string(i)] = i;
    }
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(*members.find(std::to_string(i)), Value(i));
    }
}

TEST(TheGenericObject, HasNoValuesAtFirst) {
    const GenericObject object;
    EXPECT_FALSE(object.hasValue(""));
    EXPECT_FALSE(object.hasValue("key"));
    EXPECT_FALSE(object.getValue("key").has_value());
}

TEST(TheGenericObject, ReturnsWhatWasSet) {
    GenericObject object;
    object.setValue("key", Value::List{1, "two", 3.5, true, Value()});
    EXPECT_TRUE(object.hasValue("key"));
    EXPECT_EQ(object.getValue("key"), Value(Value::List{1, "two", 3.5, true, Value()}));
}

TEST(TheGenericObject, HoldsAValueThatIsNull) {
    GenericObject object;
    object.setValue("key", {});
    EXPECT_TRUE(object.hasValue("key"));
    EXPECT_EQ(object.getValue("key"), Value());
}

TEST(TheGenericObject, ReplacesAValueThatIsThere) {
    GenericObject object;
    object.setValue("key", "before");
    object.setValue("key", 2);
    EXPECT_EQ(object.getValue("key"), Value(2));
}

TEST(TheGenericObject, TellsKeysApartByEveryByte) {
    GenericObject object;
    object.setValue(std::string("a\0b", 3), 1);
    object.setValue("a", 2);
    object.setValue("A", 3);
    EXPECT_EQ(object.getValue(std::string("a\0b", 3)), Value(1));
    EXPECT_EQ(object.getValue("a"), Value(2));
    EXPECT_EQ(object.getValue("A"), Value(3));
}

TEST(TheGenericObject, RemovesAValue) {
    GenericObject object;
    object.setValue("key", 1);
    object.setValue("other", 2);
    object.removeValue("key");
    EXPECT_FALSE(object.hasValue("key"));
    EXPECT_TRUE(object.hasValue("other"));
}

TEST(TheGenericObject, RemovesAMissingKeyWithoutAnError) {
    GenericObject object;
    object.setValue("other", 2);
    EXPECT_NO_THROW(object.removeValue("key"));
    EXPECT_TRUE(object.hasValue("other"));
}

TEST(TheGenericObject, ReturnsAnEmptyTextWhereThereIsNone) {
    GenericObject object;
    object.setValue("number", 7);
    object.setValue("list", Value::List{"text"});
    object.setValue("text", "found");
    EXPECT_EQ(object.getText("missing"), "");
    EXPECT_EQ(object.getText("number"), "");
    EXPECT_EQ(object.getText("list"), "");
    EXPECT_EQ(object.getText("text"), "found");
}

TEST(TheGenericObject, ReturnsTheTextsOfAListAndNothingElse) {
    GenericObject object;
    object.setValue("mixed", Value::List{"a", 1, "b", Value::List{"c"}, Value()});
    object.setValue("text", "a");
    EXPECT_EQ(object.getTexts("mixed"), (Texts{"a", "b"}));
    EXPECT_EQ(object.getTexts("text"), Texts{});
    EXPECT_EQ(object.getTexts("missing"), Texts{});
}

TEST(TheGenericObject, HandsOutCopies) {
    GenericObject object;
    object.setValue("key", "before");
    std::optional<Value> value = object.getValue("key");
    value = Value("changed");
    EXPECT_EQ(object.getText("key"), "before");
}

TEST(TheGenericObject, IsIndependentOfItsCopy) {
    GenericObject original;
    original.setValue("key", "both");
    GenericObject copy(original);
    original.setValue("key", "original");
    copy.setValue("more", "copy");
    EXPECT_EQ(copy.getText("key"), "both");
    EXPECT_FALSE(original.hasValue("more"));
}

TEST(TheGenericObject, LosesItsOwnValuesWhenItIsAssigned) {
    GenericObject source;
    source.setValue("key", "source");
    GenericObject target;
    target.setValue("old", "target");
    target = source;
    source.setValue("key", "changed");
    EXPECT_EQ(target.getText("key"), "source");
    EXPECT_FALSE(target.hasValue("old"));
}

TEST(TheGenericObject, StaysAsItIsWhenItIsAssignedToItself) {
    GenericObject object;
    object.setValue("key", "text");
    const GenericObject& self = object;
    object = self;
    EXPECT_EQ(object.getText("key"), "text");
}

TEST(TheXObject, HasItsIdNameAndUriUnderTheKeysOfTheseNames) {
    const XObject object("1", "echo", "/echo");
    EXPECT_EQ(object.getText("id"), "1");
    EXPECT_EQ(object.getText("name"), "echo");
    EXPECT_EQ(object.getText("uri"), "/echo");
}

TEST(TheXObject, LeavesUnsetWhatIsEmpty) {
    const XObject object("", "echo", "");
    EXPECT_FALSE(object.hasValue("id"));
    EXPECT_TRUE(object.hasValue("name"));
    EXPECT_FALSE(object.hasValue("uri"));
}

}  // namespace
}  // namespace orvx::common
