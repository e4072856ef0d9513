#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "App/DigestBook.hpp"
#include "App/SettingsFile.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/Persona.hpp"
#include "QuillmereKit/Moods/TagVocabulary.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Support/PeakMemory.hpp"
#include "Tests/Support/Sanitizer.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

// What every reader makes of texts that nobody writes by accident, and of files that no memory holds.

namespace quillmere::test {
namespace {

namespace fs = std::filesystem;

LoopIdentity sampleIdentity() {
    return {.moodID = "designflow",
            .blend = BlendStep(2),
            .calmPrompt = "calm",
            .energeticPrompt = "energetic",
            .seed = 1,
            .model = "sa3_medium_mlx_v2",
            .prompt = std::nullopt,
            .audio = std::nullopt,
            .recipe = 1};
}

std::string identityText() { return encodeJSON(sampleIdentity(), JSONWriter::Form::compact); }

std::string recipeText(const std::string& more) {
    return "{" + more + encodeJSON(LoopRecipe::make("Track", sampleIdentity()), JSONWriter::Form::compact).substr(1);
}

/// A reader of files: a text that it takes for one thing, with more members put first, and how many things it finds.
struct Reader {
    std::string_view name;
    fs::path file;  ///< In the folder it reads in.
    std::function<std::string(const std::string& more)> text;
    std::function<std::size_t(const TemporaryFolder& folder)> countOf;
    std::size_t limit;             ///< Of the file, in bytes.
    std::string_view number = {};  ///< A member of the text that must be a whole number.
};

template <class Read>
std::size_t countOrNone(const Read& read) {
    try {
        return read();
    } catch (const FileError&) {
        return 0;
    } catch (const JSONError&) {
        return 0;
    }
}

const std::vector<Reader>& readers() {
    static const std::vector<Reader> all = {
        {"manifest", "Loops/manifest.json",
         [](const std::string& more) {
             return "[{" + more + R"("url":"file:///proc/version","seconds":1,"identity":)" + identityText() + "}]";
         },
         [](const TemporaryFolder& folder) {
             return LoopStore(folder.path() / "Loops", ResourceBundle(folder.path()), {}, LoopStore::Access::reading)
                 .count();
         },
         gibibyte, R"("seed":1)"},
        {"list of seeds", "seeds.json",
         [](const std::string& more) {
             return "[{" + more + R"("file":"none","seconds":1,"identity":)" + identityText() + "}]";
         },
         [](const TemporaryFolder& folder) {
             return LoopStore(folder.path() / "Loops", ResourceBundle(folder.path()), {}, LoopStore::Access::reading)
                 .bundledFingerprints()
                 .size();
         },
         64 * mebibyte, R"("seed":1)"},
        {"mood file", "Moods.json",
         [](const std::string& more) {
             return R"({"version":1,"moods":[{)" + more +
                    R"("id":"my-a","name":"","glyph":"wave","calm":{"tags":[],"text":"","bpm":60},)"
                    R"("energetic":{"tags":[],"text":""}}]})";
         },
         [](const TemporaryFolder& folder) { return CustomMoodStore(folder.path() / "Moods.json").all().size(); },
         16 * mebibyte, R"("bpm":60)"},
        {"vocabulary", "tags.json",
         [](const std::string& more) { return "{" + more + R"("sections":[{"category":"genre","tags":[]}]})"; },
         [](const TemporaryFolder& folder) {
             return countOrNone([&] { return TagVocabulary::load(folder.path() / "tags.json").sections.size(); });
         },
         16 * mebibyte},
        {"personas", "personas.json",
         [](const std::string& more) {
             return R"({"personas":[{)" + more + R"("id":"a","name":"","symbol":"","prompts":{}}]})";
         },
         [](const TemporaryFolder& folder) {
             return countOrNone([&] { return PersonaCatalog(ResourceBundle(folder.path())).personas().size(); });
         },
         16 * mebibyte},
        {"vault", "saved.json",
         [](const std::string& more) {
             return R"({"schema":"quillmere.recipes/1","recipes":[)" + recipeText(more) + "]}";
         },
         [](const TemporaryFolder& folder) { return RecipeVault(folder.path()).count(); }, 64 * mebibyte,
         R"("seed":1)"},
        {"settings", "settings.json",
         [](const std::string& more) { return "{" + more + R"("schedule":{"startMinute":1,"endMinute":2}})"; },
         [](const TemporaryFolder& folder) -> std::size_t {
             return app::SettingsFile(folder.path() / "settings.json").settings().schedule ? 1 : 0;
         },
         mebibyte, R"("startMinute":1)"},
        {"digests", "digests.json",
         [](const std::string& more) {
             return "{" + more + R"("version":1,"digests":{"0123456789abcdef":")" + std::string(64, 'a') + "\"}}";
         },
         [](const TemporaryFolder& folder) -> std::size_t {
             return app::DigestBook(folder.path()).digest("0123456789abcdef") ? 1 : 0;
         },
         64 * mebibyte},
    };
    return all;
}

std::string repeated(std::string_view text, std::size_t count) {
    std::string result;
    result.reserve(text.size() * count);
    for (; count > 0; --count) result += text;
    return result;
}

std::size_t countIn(const Reader& reader, const std::string& text) {
    const TemporaryFolder folder;
    folder.putFile(reader.file.native(), text);
    return reader.countOf(folder);
}

TEST(HostileInputTests, EveryReaderTakesItsOwnText) {
    for (const auto& reader : readers()) {
        SCOPED_TRACE(reader.name);
        EXPECT_EQ(countIn(reader, reader.text("")), 1U);
    }
}

TEST(HostileInputTests, AMillionUnknownKeysAreSteppedOver) {
    std::string keys;
    for (int i = 0; i < 1'000'000; ++i) keys += "\"" + std::to_string(i) + "\":0,";
    for (const auto& reader : readers()) {
        SCOPED_TRACE(reader.name);
        if (reader.name == "settings") continue;  // larger than its file may be
        EXPECT_EQ(countIn(reader, reader.text(keys)), 1U);
    }
}

TEST(HostileInputTests, WhatNobodyAsksForMayBeOdd) {
    for (const auto* more : {"\"x\":99999999999999999999999,", "\"x\":-0,", "\"x\":1e400,", "\"x\":1,\"x\":\"2\",",
                             "\"\":{\"a\":[[]]},", "\"\\u0000\":\"\\ud83d\\ude00\","}) {
        for (const auto& reader : readers()) {
            SCOPED_TRACE(std::string(reader.name) + ": " + more);
            EXPECT_EQ(countIn(reader, reader.text(more)), 1U);
        }
    }
}

TEST(HostileInputTests, WhatIsNoJSONIsRefusedAsAWhole) {
    const std::string deep = "\"x\":" + repeated("[", 100'000) + repeated("]", 100'000) + ",";
    const std::string open = "\"x\":" + repeated("{\"a\":", 100'000);
    const std::vector<std::string> all = {"\"x\":\"\xC0\xAF\",",
                                          "\"x\":\"\xED\xA0\x80\",",
                                          "\"x\":\"\\ud800\",",
                                          "\"x\":\"\\ude00\\ud83d\",",
                                          "\"\xFF\":1,",
                                          "\"x\":NaN,",
                                          "\"x\":Infinity,",
                                          "\"x\":-Infinity,",
                                          "\"x\":+1,",
                                          "\"x\":01,",
                                          "\"x\":'a',",
                                          "x:1,",
                                          "/* */\"x\":1,",
                                          "\"x\":\"\n\",",
                                          std::string("\"x\":\0,", 6),
                                          deep,
                                          open};
    for (const auto& more : all) {
        for (const auto& reader : readers()) {
            SCOPED_TRACE(std::string(reader.name) + ": " + more.substr(0, 40));
            EXPECT_EQ(countIn(reader, reader.text(more)), 0U);
        }
    }
}

TEST(HostileInputTests, WholeNumbersBeyond64BitsAreRefusedNotCut) {
    for (const auto* number : {"9223372036854775808", "18446744073709551617", "-9223372036854775809", "1e19", "1.5",
                               "1e400", "-1e400", "\"1\"", "true", "null"}) {
        for (const auto& reader : readers()) {
            if (reader.number.empty()) continue;
            SCOPED_TRACE(std::string(reader.name) + ": " + number);
            std::string text = reader.text("");
            const auto place = text.find(reader.number);
            ASSERT_NE(place, std::string::npos);
            const auto key = reader.number.substr(0, reader.number.find(':') + 1);
            text.replace(place, reader.number.size(), std::string(key) + number);
            // A tempo may be left open.
            const bool isOptional = reader.name == "mood file" && std::string_view(number) == "null";
            EXPECT_EQ(countIn(reader, text), isOptional ? 1U : 0U);
        }
    }
}

// The manifest's limit is that of the tests below, which measure whether it is read: the blanks would take a gibibyte.
TEST(HostileInputTests, AFileIsReadUpToItsLimitAndNotOneByteBeyond) {
    for (const auto& reader : readers()) {
        SCOPED_TRACE(reader.name);
        if (reader.limit == gibibyte) continue;
        std::string text = reader.text("");
        text.resize(reader.limit, ' ');
        EXPECT_EQ(countIn(reader, text), 1U);
        EXPECT_EQ(countIn(reader, text + " "), 0U);
    }
}

// Of such a file the disk holds nothing: only its size can tell, before it is read. Reading up to the limit and then
// refusing would show too, but for the settings, whose limit is less than what a process takes anyway.
TEST(HostileInputTests, AFileBeyondTheLimitCostsNoMemory) {
    for (const auto& reader : readers()) {
        SCOPED_TRACE(reader.name);
        const TemporaryFolder folder;
        fs::resize_file(folder.putFile(reader.file.native(), "["), std::max(reader.limit + 1, 256 * mebibyte));

        const auto peak = peakOf([&] {
            if (reader.countOf(folder) != 0) ::_exit(1);
        });

        EXPECT_LT(peak, (isSanitized ? 32 : 8) * mebibyte);
    }
}

TEST(HostileInputTests, AGibibyteOfOpenBracketsCostsItsOwnLengthAtMost) {
    const TemporaryFolder folder;
    const auto file = folder.putFile("Loops/manifest.json", "");
    {
        const std::string part(mebibyte, '[');
        std::FILE* const out = std::fopen(file.c_str(), "wb");
        ASSERT_NE(out, nullptr);
        for (int i = 0; i < 1024; ++i) ASSERT_EQ(std::fwrite(part.data(), 1, part.size(), out), part.size());
        ASSERT_EQ(std::fclose(out), 0);
    }

    const auto peak = peakOf([&] {
        const LoopStore store(folder.path() / "Loops", ResourceBundle(folder.path()), {}, LoopStore::Access::reading);
        if (store.count() != 0) ::_exit(1);
    });

    EXPECT_GT(peak, gibibyte / 2) << "it was not even read";
    EXPECT_LT(peak, gibibyte + gibibyte / 4);
}

// Of what JSON is made: much that is small costs the most.
TEST(HostileInputTests, NoTextCosts16TimesItsLength) {
    const std::vector<std::string> all = {"-0",         "99999999999999999999",
                                          "1e999",      "0",
                                          "1.5",        "{}",
                                          "[]",         "\"\"",
                                          "\"a\"",      "true",
                                          "[0]",        "{\"\":0}",
                                          "[[[]]]",     "\"\\n\"",
                                          "-1",         "1e5",
                                          "\"\\u0000\""};
    for (const std::string& value : all) {
        SCOPED_TRACE(value);
        std::string text = "{\"x\":[";
        while (text.size() < 4 * mebibyte) text.append(value) += ',';
        text.append("1],\"y\":1}");

        const auto peak = peakOf([&] {
            if (JSONDocument::parse(text).root().member<std::int64_t>("y") != 1) ::_exit(1);
        });

        // A sanitizer keeps what was freed for a while.
        EXPECT_LT(peak, (isSanitized ? 40 : 16) * text.size());
        if (std::getenv("QUILLMERE_FIGURES") != nullptr) {
            std::printf("%s: %.1f bytes for each\n", value.c_str(),
                        static_cast<double>(peak) / static_cast<double>(text.size()));
        }
    }
}

// Each piece by a long way down and up again; who looks for what may be cleaned up has to know what they use.
TEST(HostileInputTests, LongWaysToItsPiecesCostALibraryNoMoreThanTheirText) {
    constexpr int pieces = 100;
    constexpr int depth = 400;
    const TemporaryFolder home;
    const auto folder = home.path() / "Loops";
    home.putFile("Loops/piece.wav", "RIFF");
    std::string down;
    std::string up;
    for (int i = 0; i < depth; ++i) {
        down += "/b";
        up += "/..";
    }
    fs::create_directories(fs::path((folder / "deep").native() + down));
    std::vector<LoopArtifact> listed;
    for (int i = 0; i < pieces; ++i) {
        const auto start = folder / std::to_string(i);
        fs::create_directory_symlink("deep", start);
        auto identity = sampleIdentity();
        identity.seed = i;
        const auto url = FileURL::fromPath(fs::path(start.native() + down + up + "/../piece.wav"));
        listed.push_back(LoopStoreFixture::artifactAt(identity, url));
    }
    const auto text = encodeJSON(listed, JSONWriter::Form::compact);
    home.putFile("Loops/manifest.json", text);
    const auto leftover = home.putFile("Loops/.quillmere-01234567-89AB-4DEF-8123-456789ABCDEF.tmp", "half a list");

    const auto peak = peakOf([&] {
        const LoopStore store(folder, ResourceBundle(home.path()), {});
        if (store.count() != pieces || fs::exists(leftover)) ::_exit(1);
    });

    // A sanitizer keeps what was freed for a while: here all parts of all paths.
    if (!isSanitized) {
        EXPECT_LT(peak, 16 * text.size());
    }
}

}  // namespace
}  // namespace quillmere::test
