// The output of the console for arbitrary texts. The texts pass through a console logger.

#include "Console.h"

#include <gtest/gtest.h>

#include <string>

namespace orvx::utility {
namespace {

using namespace std::string_literals;
using test::shownOnConsole;

std::string as(std::size_t count) {
    return std::string(count, 'a');
}

TEST(TheConsole, ShowsPrintableTextsAsTheyAre) {
    const auto text = R"(~!@#$%^&*()_+ {}[]|:;"'<>,.?/ %s %v {})"s;
    EXPECT_EQ(shownOnConsole(text), text);
    EXPECT_EQ(shownOnConsole(""), "");
}

TEST(TheConsole, EscapesControlCharacters) {
    EXPECT_EQ(shownOnConsole("\x1b[2J"), R"(\x1B[2J)");
    EXPECT_EQ(shownOnConsole("\0\x01\t\r\x1f\x7f"s), R"(\x00\x01\x09\x0D\x1F\x7F)");
}

TEST(TheConsole, KeepsATextWithLineFeedsOnOneLine) {
    EXPECT_EQ(shownOnConsole("one\ntwo\n"), R"(one\ntwo\n)");
}

TEST(TheConsole, EscapesBackslashes) {
    EXPECT_EQ(shownOnConsole(R"(a\nb\)"), R"(a\\nb\\)");
}

TEST(TheConsole, EscapesTheControlCharactersBeyondAscii) {
    EXPECT_EQ(shownOnConsole("\xC2\x80 \xC2\x9B \xC2\x9F"), R"(\xC2\x80 \xC2\x9B \xC2\x9F)");
    EXPECT_EQ(shownOnConsole("\xC2\xA0"), "\xC2\xA0");
}

TEST(TheConsole, EscapesTheControlsOfTheWritingDirection) {
    EXPECT_EQ(shownOnConsole("a\u202eb"), R"(a\xE2\x80\xAEb)");
    EXPECT_EQ(shownOnConsole("\u061c \u200e \u200f"), R"(\xD8\x9C \xE2\x80\x8E \xE2\x80\x8F)");
    EXPECT_EQ(shownOnConsole("\u202a \u2066 \u2069"), R"(\xE2\x80\xAA \xE2\x81\xA6 \xE2\x81\xA9)");
    for (const char* const text : {"\u061b", "\u061d", "\u200d", "\u2010", "\u2029", "\u202f",
                                   "\u2065", "\u206a", "\u05d0"}) {
        EXPECT_EQ(shownOnConsole(text), text);
    }
}

TEST(TheConsole, KeepsTheCharactersOfEveryLength) {
    for (const auto* const text :
         {"\xC3\xA9", "\xDF\xBF", "\xE0\xA0\x80", "\xE2\x82\xAC", "\xED\x9F\xBF", "\xEE\x80\x80",
          "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_EQ(shownOnConsole(text), text);
    }
}

TEST(TheConsole, EscapesOverlongForms) {
    EXPECT_EQ(shownOnConsole("\xC0\x80"), R"(\xC0\x80)");
    EXPECT_EQ(shownOnConsole("\xC1\xBF"), R"(\xC1\xBF)");
    EXPECT_EQ(shownOnConsole("\xE0\x9F\xBF"), R"(\xE0\x9F\xBF)");
    EXPECT_EQ(shownOnConsole("\xF0\x8F\xBF\xBF"), R"(\xF0\x8F\xBF\xBF)");
}

TEST(TheConsole, EscapesSurrogatesAndWhatIsBeyondTheLastCodePoint) {
    EXPECT_EQ(shownOnConsole("\xED\xA0\x80"), R"(\xED\xA0\x80)");
    EXPECT_EQ(shownOnConsole("\xED\xBF\xBF"), R"(\xED\xBF\xBF)");
    EXPECT_EQ(shownOnConsole("\xF4\x90\x80\x80"), R"(\xF4\x90\x80\x80)");
    EXPECT_EQ(shownOnConsole("\xF8\x88\x80\x80\x80"), R"(\xF8\x88\x80\x80\x80)");
    EXPECT_EQ(shownOnConsole("\xFE\xFF"), R"(\xFE\xFF)");
}

TEST(TheConsole, EscapesCharactersThatAreCutShort) {
    EXPECT_EQ(shownOnConsole("\xE2\x82"), R"(\xE2\x82)");
    EXPECT_EQ(shownOnConsole("\xE2\x82!"), R"(\xE2\x82!)");
    EXPECT_EQ(shownOnConsole("\x80 alone"), R"(\x80 alone)");
    EXPECT_EQ(shownOnConsole("\xF0\x9F\xC3\xA9"), "\\xF0\\x9F\xC3\xA9");
}

TEST(TheConsole, ShowsFourThousandAndNinetySixBytesWhole) {
    EXPECT_EQ(shownOnConsole(as(4096)), as(4096));
    EXPECT_EQ(shownOnConsole(as(4092) + "\xF0\x9F\x98\x80"), as(4092) + "\xF0\x9F\x98\x80");
}

TEST(TheConsole, CutsLongerTextsAndSaysByHowMuch) {
    EXPECT_EQ(shownOnConsole(as(4097)), as(4096) + "... (1 bytes more)");
    EXPECT_EQ(shownOnConsole(as(1'000'000)), as(4096) + "... (995904 bytes more)");
}

TEST(TheConsole, CountsBytesBeforeTheyAreEscaped) {
    std::string escaped;
    for (int i = 0; i < 4096; ++i) {
        escaped += "\\\\";
    }
    EXPECT_EQ(shownOnConsole(std::string(4098, '\\')), escaped + "... (2 bytes more)");
}

TEST(TheConsole, CutsNoCharacterInTwo) {
    EXPECT_EQ(shownOnConsole(as(4095) + "\xC3\xA9"), as(4095) + "... (2 bytes more)");
    EXPECT_EQ(shownOnConsole(as(4093) + "\xF0\x9F\x98\x80"), as(4093) + "... (4 bytes more)");
}

TEST(TheConsole, CutsNoEscapeInTwo) {
    EXPECT_EQ(shownOnConsole(as(4095) + "\x1b["), as(4095) + "\\x1B... (1 bytes more)");
    EXPECT_EQ(shownOnConsole(as(4095) + "\xC2\x9B["), as(4095) + "... (3 bytes more)");
}

}  // namespace
}  // namespace orvx::utility
