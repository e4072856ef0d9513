#include "Renderers/LineSplitter.hpp"

#include <gmock/gmock.h>

#include <random>
#include <string>
#include <vector>

#include "Renderers/ProcessRenderer.hpp"

namespace quillmere::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// The lines of a text that arrives in pieces of one size.
std::vector<std::string> lines(std::string_view text, std::size_t limit, std::size_t piece) {
    LineSplitter splitter(limit);
    std::vector<std::string> found;
    const auto take = [&](std::string_view line) { found.emplace_back(line); };
    for (; !text.empty(); text.remove_prefix(std::min(piece, text.size())))
        splitter.append(text.substr(0, piece), take);
    splitter.finish(take);
    return found;
}

TEST(LineSplitterTests, CutsLinesHoweverTheyArrive) {
    for (const std::size_t piece : {1U, 2U, 3U, 5U, 100U}) {
        SCOPED_TRACE(piece);

        EXPECT_THAT(lines("one\n\ntwo\nthree", 10, piece), ElementsAre("one", "", "two", "three"));
        EXPECT_THAT(lines("one\n", 10, piece), ElementsAre("one"));
        EXPECT_THAT(lines("", 10, piece), IsEmpty());
    }
}

TEST(LineSplitterTests, ALineOfAnEngineIsTakenUpTo64KiB) {
    const auto limit = ProcessRendererOptions().lineLimit;
    const std::string longest(65'536, 'x');

    EXPECT_THAT(lines(longest + "\n" + longest + "x\nlast", limit, 4096), ElementsAre(longest, "last"));
}

TEST(LineSplitterTests, SkipsALongLineToItsEnd) {
    for (const std::size_t piece : {1U, 3U, 4U, 7U, 100U}) {
        SCOPED_TRACE(piece);

        EXPECT_THAT(lines("abcd\nabcde\nefg\nabcdefghijklmnop\nhi\n", 4, piece), ElementsAre("abcd", "efg", "hi"));
        EXPECT_THAT(lines("a\nabcdefgh", 4, piece), ElementsAre("a"));
    }
}

TEST(LineSplitterTests, EveryCutGivesTheSameLines) {
    std::minstd_rand random(1);
    for (int round = 0; round < 200; ++round) {
        std::string text;
        for (int index = 0; index < 60; ++index) text += "ab\n"[random() % 3];
        const auto whole = lines(text, 5, text.size());

        for (std::size_t piece = 1; piece < 12; ++piece) EXPECT_EQ(lines(text, 5, piece), whole) << text;
    }
}

}  // namespace
}  // namespace quillmere::test
