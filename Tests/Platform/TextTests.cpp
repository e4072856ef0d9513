#include "QuillmereKit/Platform/Text.hpp"

#include <gtest/gtest.h>

#include <string>

#include "Tests/Platform/UTF8.hpp"

namespace quillmere::test {
namespace {

TEST(TextTests, BlanksGoFromBothEndsAndStayInside) {
    EXPECT_EQ(trimmed(" \t\r\n a  b \n"), "a  b");
    EXPECT_EQ(trimmed("\u00a0\u3000\u2028a\u2029\u0085\u200a"), "a");
    EXPECT_EQ(trimmed("a"), "a");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed(" \u2003\n "), "");
    EXPECT_EQ(trimmed(std::string_view("\0 a \0", 5)), std::string_view("\0 a \0", 5));
}

TEST(TextTests, TrimmedTextIsPartOfTheOriginal) {
    const std::string text = "  a ";

    EXPECT_EQ(trimmed(text).data(), text.data() + 2);
}

TEST(TextTests, MalformedTextIsTrimmedUpToTheDamageAndKept) {
    EXPECT_EQ(trimmed(" \x80 "), "\x80");
    EXPECT_EQ(trimmed(" \xFF a\xE3\x80 "), "\xFF a\xE3\x80");
    EXPECT_EQ(trimmed("\x80\x80\x80\x80\x80"), "\x80\x80\x80\x80\x80");
    EXPECT_EQ(trimmed("\xC0\xA0"), "\xC0\xA0");  // an overlong blank is none
    EXPECT_EQ(trimmed("a\xA0"), "a\xA0");        // the last byte of U+00A0 alone
    EXPECT_EQ(trimmed("\xC2"), "\xC2");
    EXPECT_EQ(trimmed("\x80\xC2\xA0"), "\x80");
}

TEST(TextTests, UTF8IsToldFromEverythingElse) {
    forEachByteSequence([](const std::string& bytes) {
        for (const std::string& text : {bytes, "eight by" + bytes, bytes + "eight by", bytes.substr(1)}) {
            EXPECT_EQ(isValidUTF8(text), isUTF8ByReference(text)) << testing::PrintToString(text);
        }
    });
    EXPECT_TRUE(isValidUTF8(""));
}

TEST(TextTests, EveryScalarIsUTF8AndNoSurrogateIs) {
    for (std::uint32_t value = 0; value <= 0x10FFFF; ++value) {
        const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;

        ASSERT_EQ(isValidUTF8(utf8({value})), !isSurrogate) << value;
    }
    EXPECT_FALSE(isValidUTF8(utf8({0x110000})));
}

TEST(TextTests, LettersDigitsAndHyphensOfAnyScriptAreAllowed) {
    for (const std::string_view text :
         {"", "designflow", "my-0a1B", "-", "--", "\u00e9t\u00e9", "e\u0301", "\u9759\u304b", "\u0663", "\u00bd",
          "\u00b2", "\u2167", "\u01c5", "\u0915\u094d\u0937\u093f", "\U0001D7D8", "a\u200d", "5\u20e3", "\ud55c\uae00",
          "\u1112\u1161\u11ab"}) {
        EXPECT_TRUE(consistsOfLettersDigitsAndHyphens(text)) << text;
    }
}

TEST(TextTests, OtherCharactersAreNotAllowedWhereverTheyStand) {
    for (const std::string_view text :
         {" ",      "_",          ".",      "/",      "..",         "a b",         "a_",
          "/a",     "a\n",        "\r\n",   "\u0301", "\u0301a",    "-\u0301",     "a-\u0301b",
          "\u200d", "\u2010",     "\u2013", "\uff0d", "\U0001F600", "a\U0001F600", "\U0001F1E9\U0001F1EA",
          "\u20ac", "\u00b7",     "\ufeff", "\u00ad", "\u2028",     "\ufffd",      "\uffff",
          "\x7F",   "\U000E0041", "\ue000"}) {
        EXPECT_FALSE(consistsOfLettersDigitsAndHyphens(text)) << text;
    }
    EXPECT_FALSE(consistsOfLettersDigitsAndHyphens(std::string_view("a\0", 2)));
}

TEST(TextTests, TextThatIsNotUTF8HasNoLetters) {
    for (const std::string_view text : {"\xFF", "a\xC3", "\xED\xA0\x80", "a\x80"}) {
        EXPECT_FALSE(consistsOfLettersDigitsAndHyphens(text));
    }
}

TEST(TextTests, DecimalDigitsAreANumber) {
    EXPECT_EQ(decimalInteger("0"), 0);
    EXPECT_EQ(decimalInteger("42"), 42);
    EXPECT_EQ(decimalInteger("007"), 7);
    EXPECT_EQ(decimalInteger("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(decimalInteger(std::string(100, '0') + "5"), 5);
}

TEST(TextTests, AnythingButDecimalDigitsIsNoNumber) {
    for (const std::string_view text : {"", "-1", "-", "+1", " 1", "1 ", "1.0", "1e2", "0x1", "a", "1a", "\u0663",
                                        "9223372036854775808", "99999999999999999999999"}) {
        EXPECT_EQ(decimalInteger(text), std::nullopt) << text;
    }
    EXPECT_EQ(decimalInteger(std::string_view("1\0", 2)), std::nullopt);
}

}  // namespace
}  // namespace quillmere::test
