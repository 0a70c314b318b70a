// The JSON of objects, byte for byte and as parsed again, and the texts that are refused. One
// thread.

#include <gtest/gtest.h>
#include <orvx/common/GenericObject.h>

#include <cmath>
#include <cstring>
#include <iomanip>
#include <limits>
#include <locale>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

namespace orvx::common {
namespace {

using Value = GenericObjectValue;
using Json = nlohmann::json;

std::string toText(const GenericObject& object, bool pretty = false) {
    std::ostringstream stream;
    object.toJSONStream(stream, pretty);
    return stream.str();
}

/// The JSON of an object that holds `value` under "k", without the braces and the key.
std::string toText(Value value) {
    GenericObject object;
    object.setValue("k", std::move(value));
    const std::string text = toText(object);
    return text.substr(5, text.size() - 6);
}

Value nested(int depth) {
    Value value("core");
    for (int i = 0; i < depth; ++i) {
        value = i % 2 == 0 ? Value(Value::List{value}) : Value(Value::Object{{"in", value}});
    }
    return value;
}

TEST(TheJsonOfAnObject, IsAnEmptyObjectWithoutValues) {
    EXPECT_EQ(toText(GenericObject()), "{}");
    EXPECT_EQ(toText(GenericObject(), true), "{}");
}

TEST(TheJsonOfAnObject, HoldsEveryTypeOfValue) {
    EXPECT_EQ(toText(Value()), "null");
    EXPECT_EQ(toText(Value(true)), "true");
    EXPECT_EQ(toText(Value(false)), "false");
    EXPECT_EQ(toText(Value(-7)), "-7");
    EXPECT_EQ(toText(Value(0.5)), "0.5");
    EXPECT_EQ(toText(Value("text")), "\"text\"");
    EXPECT_EQ(toText(Value(Value::List{})), "[]");
    EXPECT_EQ(toText(Value(Value::Object{})), "{}");
}

TEST(TheJsonOfAnObject, IsThatOfTheJsonLibraryWhateverCharacterStandsWhereInAText) {
    for (unsigned character = 0; character < 0x80; ++character) {
        for (std::size_t length = 1; length <= 17; ++length) {
            for (std::size_t place = 0; place < length; ++place) {
                std::string text(length, 'x');
                text[place] = static_cast<char>(character);
                ASSERT_EQ(toText(Value(text)), Json(text).dump()) << character;
            }
        }
    }
}

TEST(TheJsonOfAnObject, IsWholeHoweverLongItGrows) {
    Value::List list;
    Json expected = Json::array();
    for (int i = 0; i < 1000; ++i) {
        list.emplace_back(std::string(static_cast<std::size_t>(i), 'x'));
        expected.push_back(std::string(static_cast<std::size_t>(i), 'x'));
    }
    EXPECT_EQ(toText(Value(list)), expected.dump());
}

TEST(TheJsonOfAnObject, IsReadAsTheSameTreeOfValues) {
    const Value::List list{Value(),
                           true,
                           1,
                           2.5,
                           "text",
                           Value::List{1, Value::List{}},
                           Value::Object{{"a", Value::Object{{"b", false}}}}};
    GenericObject object;
    object.setValue("list", list);
    object.setValue("object", Value::Object{{"list", list}, {"null", Value()}});
    const Json expectedList{
        nullptr, true, 1, 2.5, "text", {1, Json::array()}, {{"a", {{"b", false}}}}};
    const Json expected{{"list", expectedList},
                        {"object", {{"list", expectedList}, {"null", nullptr}}}};
    EXPECT_EQ(Json::parse(toText(object)), expected);
    EXPECT_EQ(Json::parse(toText(object, true)), expected);
}

TEST(TheJsonOfAnObject, IsOnOneLineWithItsKeysInAscendingOrder) {
    GenericObject object;
    object.setValue("ä", 4);
    object.setValue("b", Value::Object{{"z", 1}, {"y", 2}});
    object.setValue("a", 2);
    object.setValue("B", 1);
    EXPECT_EQ(toText(object), R"({"B":1,"a":2,"b":{"y":2,"z":1},"ä":4})");
}

TEST(TheJsonOfAnObject, IsIndentedByFourWhenItIsToBePretty) {
    GenericObject object;
    object.setValue("list", Value::List{1, Value::Object{{"a", "b"}}});
    object.setValue("empty", Value::List{});
    EXPECT_EQ(toText(object, true), R"({
    "empty": [],
    "list": [
        1,
        {
            "a": "b"
        }
    ]
})");
}

TEST(TheJsonOfAnObject, HoldsTheLargestIntegersExactly) {
    EXPECT_EQ(toText(Value(std::numeric_limits<std::int64_t>::max())), "9223372036854775807");
    EXPECT_EQ(toText(Value(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
    EXPECT_EQ(toText(Value(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
}

TEST(TheJsonOfAnObject, TellsANumberWithAFractionFromAnInteger) {
    EXPECT_EQ(toText(Value(1)), "1");
    EXPECT_EQ(toText(Value(1.0)), "1.0");
    EXPECT_EQ(toText(Value(-0.0)), "-0.0");
}

TEST(TheJsonOfAnObject, HoldsNullForNumbersThatJsonDoesNotKnow) {
    EXPECT_EQ(toText(Value(std::nan(""))), "null");
    EXPECT_EQ(toText(Value(std::numeric_limits<double>::infinity())), "null");
    EXPECT_EQ(toText(Value(-std::numeric_limits<double>::infinity())), "null");
}

void expectRoundTrip(double number) {
    const double read = std::strtod(toText(Value(number)).c_str(), nullptr);
    EXPECT_EQ(std::memcmp(&read, &number, sizeof number), 0) << toText(Value(number));
}

TEST(TheJsonOfAnObject, HoldsEveryDoubleWithAllItsBits) {
    using Limits = std::numeric_limits<double>;
    for (double number : {0.0, -0.0, 0.1, 1.0 / 3, 1e22, 123456789012345680.0, Limits::max(),
                          Limits::lowest(), Limits::min(), Limits::denorm_min()}) {
        expectRoundTrip(number);
    }
    std::mt19937_64 random(1);
    for (int i = 0; i < 10000; ++i) {
        const std::uint64_t bits = random();
        double number = 0;
        std::memcpy(&number, &bits, sizeof number);
        if (std::isfinite(number)) {
            expectRoundTrip(number);
        }
    }
}

const std::vector<std::string>& oddTexts() {
    using namespace std::string_literals;
    static const std::vector<std::string> texts{
        "",          " ",      "\"",       "\\",         "/",        "\n",   "\r\n",
        "\t",        "\b\f",   "\x01\x1F", "\x7F",       "a\0b"s,    "\0"s,  "</script>",
        "{\"a\":1}", "a.b",    "%2F",      "ä",          "日本語",   "😀",    "👩‍👩‍👧",
        "\u2028",    "\uFEFF", "\uFFFF",   "\U0010FFFF", "\x1B[31m", "null", "__proto__"};
    return texts;
}

TEST(TheJsonOfAnObject, HoldsOddTextsAsKeysAndAsValues) {
    GenericObject object;
    Json expected = Json::object();
    for (const std::string& text : oddTexts()) {
        object.setValue(text, Value::Object{{text, Value::List{text}}});
        expected[text] = Json{{text, Json::array({text})}};
    }
    EXPECT_EQ(Json::parse(toText(object)), expected);
    EXPECT_EQ(Json::parse(toText(object, true)), expected);
}

TEST(TheJsonOfAnObject, HoldsNoControlCharacters) {
    for (const std::string& text : oddTexts()) {
        for (char c : toText(Value(text))) {
            EXPECT_FALSE(c >= 0 && c < ' ') << text;
        }
    }
}

TEST(TheJsonOfAnObject, HoldsOtherScriptsAndEmojiInUtf8) {
    EXPECT_EQ(toText(Value("日本語 😀")), "\"日本語 😀\"");
}

/// Invalid UTF-8: stray, cut short, overlong, a surrogate, beyond the last code point, never valid.
const std::vector<std::string>& invalidTexts() {
    static const std::vector<std::string> texts{
        "\x80",         "a\xC3",        "\xE2\x82",     "\xF0\x9F\x98", "\xC3(",
        "\xC0\xAF",     "\xE0\x80\xAF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80",
        "ok \xFF still"};
    return texts;
}

void expectRefusal(const GenericObject& object) {
    for (bool pretty : {false, true}) {
        std::ostringstream stream;
        stream << "before";
        EXPECT_THROW(object.toJSONStream(stream, pretty), std::exception);
        EXPECT_EQ(stream.str(), "before");
        EXPECT_TRUE(stream.good());
    }
}

TEST(TheJsonOfAnObject, IsRefusedWholeWhenATextIsNotValidUtf8) {
    for (const std::string& text : invalidTexts()) {
        GenericObject object;
        object.setValue("a", std::string(100000, 'x'));
        object.setValue("z", Value::List{Value::Object{{"deep", text}}});
        expectRefusal(object);
    }
}

TEST(TheJsonOfAnObject, IsRefusedWholeWhenAKeyIsNotValidUtf8) {
    for (const std::string& text : invalidTexts()) {
        GenericObject outer;
        outer.setValue("a", 1);
        outer.setValue(text, 1);
        expectRefusal(outer);
        GenericObject inner;
        inner.setValue("z", Value::List{Value::Object{{text, 1}}});
        expectRefusal(inner);
    }
}

TEST(TheJsonOfAnObject, CanBeWrittenOnceTheInvalidTextIsReplaced) {
    GenericObject object;
    object.setValue("k", "\xFF");
    EXPECT_THROW(toText(object), std::exception);
    object.setValue("k", "fine");
    EXPECT_EQ(toText(object), R"({"k":"fine"})");
}

struct GroupedDigits : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
    std::string do_truename() const override { return "wahr"; }
};

std::locale groupingLocale() {
    return {std::locale::classic(), new GroupedDigits};
}

/// Sets the process's locale for a scope.
class GlobalLocale {
  public:
    explicit GlobalLocale(const std::locale& locale) : before_(std::locale::global(locale)) {}
    ~GlobalLocale() { std::locale::global(before_); }

  private:
    std::locale before_;
};

GenericObject numbers() {
    GenericObject object;
    object.setValue("flag", true);
    object.setValue("fraction", 1234567.25);
    object.setValue("integer", 1234567);
    return object;
}

const char* const numbersText = R"({"flag":true,"fraction":1234567.25,"integer":1234567})";

TEST(TheJsonOfAnObject, DoesNotDependOnTheStreamsFormat) {
    std::ostringstream stream;
    stream.exceptions(std::ios::badbit | std::ios::failbit);
    stream.imbue(groupingLocale());
    stream << std::hex << std::showbase << std::showpos << std::uppercase << std::boolalpha
           << std::scientific << std::setprecision(1) << std::setfill('*') << std::setw(200);
    numbers().toJSONStream(stream, false);
    EXPECT_EQ(stream.str(), numbersText);
}

// Covers the effect of the locale on C++ streams; the machine may have no C locale with another
// decimal point.
TEST(TheJsonOfAnObject, DoesNotDependOnTheLocaleOfTheProcess) {
    const GlobalLocale scope(groupingLocale());
    EXPECT_EQ(toText(numbers()), numbersText);
}

TEST(TheJsonOfAnObject, DoesNotChangeTheStreamsFormat) {
    std::ostringstream stream;
    stream << std::hex << std::setprecision(3) << std::setfill('*') << std::setw(7);
    numbers().toJSONStream(stream, true);
    stream.str("");
    stream << 255;
    EXPECT_EQ(stream.str(), "*****ff");
    EXPECT_EQ(stream.precision(), 3);
}

TEST(TheJsonOfAnObject, GoesWhereTheStreamStands) {
    std::ostringstream stream;
    stream << "body=";
    numbers().toJSONStream(stream, false);
    stream << ";";
    EXPECT_EQ(stream.str(), "body=" + std::string(numbersText) + ";");
}

TEST(TheJsonOfAnObject, HoldsATextOfManyMegabytes) {
    const std::string text(10 * 1024 * 1024, 'x');
    EXPECT_EQ(toText(Value(text)), '"' + text + '"');
}

TEST(TheJsonOfAnObject, HoldsThousandsOfTextsInTheirOrder) {
    std::vector<std::string> texts;
    for (int i = 0; i < 5000; ++i) {
        texts.push_back("category-" + std::to_string(i));
    }
    EXPECT_EQ(Json::parse(toText(Value(texts))).get<std::vector<std::string>>(), texts);
}

TEST(TheJsonOfAnObject, HoldsDeeplyNestedValues) {
    constexpr int depth = 1000;
    Json json = Json::parse(toText(nested(depth)));
    for (int i = 0; i < depth; ++i) {
        Json inner = json.is_array() ? json.at(0) : json.at("in");
        json = std::move(inner);
    }
    EXPECT_EQ(json, "core");
}

}  // namespace
}  // namespace orvx::common
