#include "Renderers/TextTail.hpp"

#include <gtest/gtest.h>

#include <string>

#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere::test {
namespace {

std::string tail(std::string_view bytes, std::size_t limit = 4096, std::size_t piece = 7) {
    TextTail tail(limit);
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) tail.append(bytes.substr(0, piece));
    return tail.text();
}

TEST(TextTailTests, KeepsTheEnd) {
    EXPECT_EQ(tail(""), "");
    EXPECT_EQ(tail("abcdefghij", 4), "ghij");
    EXPECT_EQ(tail("abcdefghij", 4, 100), "ghij");
    EXPECT_EQ(tail("abcdefghij", 10), "abcdefghij");
}

TEST(TextTailTests, TrimsWhiteSpaceAndKeepsLines) {
    EXPECT_EQ(tail("\n Traceback:\n  line 1\n\n"), "Traceback:\n  line 1");
}

TEST(TextTailTests, RemovesControlCharacters) {
    EXPECT_EQ(tail("a\rb\x1B[1mc\x7F\td\xC2\x9F"
                   "e\x01"),
              "ab[1mc de");
    EXPECT_EQ(tail(std::string_view("a\0b", 3)), "ab");
}

TEST(TextTailTests, ReplacesWhatIsNotUTF8) {
    EXPECT_EQ(tail("a\xFFz"), "a\uFFFDz");
    EXPECT_EQ(tail("\xC3"), "\uFFFD");
    EXPECT_EQ(tail("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");  // a surrogate
    EXPECT_EQ(tail("\u00E4\u20AC\U0001F3B5"), "\u00E4\u20AC\U0001F3B5");
}

TEST(TextTailTests, DoesNotBeginInTheMiddleOfACharacter) {
    for (const std::size_t piece : {1U, 2U, 5U, 7U, 100U}) {
        SCOPED_TRACE(piece);
        EXPECT_EQ(tail("xx\u20ACabc", 5, piece), "abc");
        EXPECT_EQ(tail("xx\u20ACabc", 4, piece), "abc");
        EXPECT_EQ(tail("xx\u20ACabc", 6, piece), "\u20ACabc");
    }
}

TEST(TextTailTests, IsAlwaysUTF8) {
    std::string bytes;
    unsigned state = 1;
    for (int round = 0; round < 200; ++round) {
        bytes.clear();
        for (int index = 0; index < 64; ++index) {
            state = state * 1664525U + 1013904223U;
            bytes += static_cast<char>(state >> 24);
        }
        EXPECT_TRUE(isValidUTF8(tail(bytes, 40)));
    }
}

}  // namespace
}  // namespace quillmere::test
