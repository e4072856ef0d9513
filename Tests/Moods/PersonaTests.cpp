#include "QuillmereKit/Moods/Persona.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere {
namespace {

const Persona baker{"baker", "The Baker", "bread", {{Anchor::calm, "slow waltz"}, {Anchor::energetic, "brisk polka"}}};

constexpr const char* bakerText =
    R"({"id":"baker","name":"The Baker","symbol":"bread","prompts":{"calm":"slow waltz","energetic":"brisk polka"}})";

struct PersonaTests : testing::Test {
    test::TemporaryFolder folder;

    ResourceBundle bundleWith(std::string_view text) const {
        folder.putFile("personas.json", text);
        return ResourceBundle(folder.path());
    }
};

TEST_F(PersonaTests, IsWrittenAndReadWithItsPromptsByEnd) {
    EXPECT_EQ(encodeJSON(baker, JSONWriter::Form::compact), bakerText);
    EXPECT_EQ(decodeJSON<Persona>(bakerText), baker);
    EXPECT_EQ(baker.prompt(Anchor::calm), "slow waltz");
    EXPECT_EQ(baker.prompt(Anchor::energetic), "brisk polka");
}

TEST_F(PersonaTests, AMissingEndHasAnEmptyPrompt) {
    const auto persona = decodeJSON<Persona>(R"({"id":"a","name":"A","symbol":"s","prompts":{"calm":"slow"}})");

    EXPECT_EQ(persona.prompt(Anchor::calm), "slow");
    EXPECT_EQ(persona.prompt(Anchor::energetic), "");
    EXPECT_EQ(encodeJSON(persona, JSONWriter::Form::compact),
              R"({"id":"a","name":"A","symbol":"s","prompts":{"calm":"slow"}})");
}

TEST_F(PersonaTests, PromptsOfNoEndAreDropped) {
    const auto persona = decodeJSON<Persona>(
        R"({"id":"a","name":"A","symbol":"s","prompts":{"lively":"x","Calm":"y","calm":"slow","other":3}})");

    EXPECT_EQ(persona.prompts, (std::map<Anchor, std::string>{{Anchor::calm, "slow"}}));
}

TEST_F(PersonaTests, WhatIsNoPersonaIsRefused) {
    for (const char* text : {
             R"({"name":"A","symbol":"s","prompts":{}})",
             R"({"id":"a","symbol":"s","prompts":{}})",
             R"({"id":"a","name":"A","prompts":{}})",
             R"({"id":"a","name":"A","symbol":"s"})",
             R"({"id":"a","name":"A","symbol":"s","prompts":null})",
             R"({"id":"a","name":"A","symbol":"s","prompts":[]})",
             R"({"id":"a","name":"A","symbol":"s","prompts":{"calm":1}})",
             R"({"id":"a","name":"A","symbol":"s","prompts":{"calm":null}})",
             R"({"id":1,"name":"A","symbol":"s","prompts":{}})",
             "[]",
         }) {
        EXPECT_THROW((void)decodeJSON<Persona>(text), JSONError) << text;
    }
    try {
        (void)decodeJSON<Persona>(R"({"id":"a","name":"A","symbol":"s","prompts":{"calm":1}})");
        FAIL() << "accepted";
    } catch (const JSONError& error) {
        EXPECT_EQ(error.path(), "prompts.calm");
    }
}

TEST_F(PersonaTests, EveryFieldCountsInEqualityAndHash) {
    const std::hash<Persona> hash;
    std::set<std::size_t> hashes{hash(baker)};
    Persona other = baker;
    EXPECT_EQ(hash(other), hash(baker));
    other.id = "x";
    hashes.insert(hash(other));
    EXPECT_NE(other, baker);
    other = baker;
    other.name = "x";
    hashes.insert(hash(other));
    other = baker;
    other.symbol = "x";
    hashes.insert(hash(other));
    other = baker;
    other.prompts.erase(Anchor::calm);
    hashes.insert(hash(other));
    EXPECT_NE(other, baker);
    EXPECT_EQ(hashes.size(), 5U);
}

TEST_F(PersonaTests, ACatalogueKeepsTheFilesOrderAndFindsByExactId) {
    const PersonaCatalog catalog(bundleWith(R"({"personas":[{"id":"b","name":"B","symbol":"s","prompts":{}},)" +
                                            std::string(bakerText) +
                                            R"(,{"id":"b","name":"Second","symbol":"s","prompts":{}}],"version":9})"));

    ASSERT_EQ(catalog.personas().size(), 3U);
    EXPECT_EQ(catalog.first().id, "b");
    EXPECT_EQ(catalog["baker"], baker);
    EXPECT_EQ(catalog["b"]->name, "B");
    EXPECT_EQ(catalog["Baker"], std::nullopt);
}

TEST_F(PersonaTests, AMissingResourceAndAnEmptyFileAreTheirOwnErrors) {
    const auto reasonOf = [](const ResourceBundle& bundle) {
        try {
            (void)PersonaCatalog(bundle);
        } catch (const PersonaCatalog::CatalogError& error) {
            EXPECT_STRNE(error.what(), "");
            return std::optional(error.reason());
        }
        return std::optional<PersonaCatalog::CatalogError::Reason>();
    };
    EXPECT_EQ(reasonOf(ResourceBundle(folder.path())), PersonaCatalog::CatalogError::Reason::missing);
    EXPECT_EQ(reasonOf(bundleWith(R"({"personas":[]})")), PersonaCatalog::CatalogError::Reason::empty);
    EXPECT_EQ(reasonOf(bundleWith(R"({"personas":[)" + std::string(bakerText) + "]}")), std::nullopt);
}

TEST_F(PersonaTests, ADamagedFileFailsWithTheReadersError) {
    for (const char* text : {"", "{}", R"({"personas":null})", R"({"personas":[{}]})", "[]", "\xff"}) {
        EXPECT_THROW((void)PersonaCatalog(bundleWith(text)), JSONError) << text;
    }
}

TEST_F(PersonaTests, AFileThatCannotBeReadFailsWithTheFilesError) {
    const auto bundle = bundleWith(R"({"personas":[]})");
    std::filesystem::resize_file(folder.path() / "personas.json", (16 << 20) + 1);  // sparse
    try {
        (void)PersonaCatalog(bundle);
        FAIL() << "loaded";
    } catch (const FileError& error) {
        EXPECT_EQ(error.code(), FileFault::fileReadTooLarge);
    }
}

TEST_F(PersonaTests, EveryMissingKeyIsNamedInTheSameWords) {
    const std::string whole = bakerText;
    for (const std::string key : {"id", "name", "symbol", "prompts"}) {
        SCOPED_TRACE(key);
        auto without = whole;
        without.replace(without.find('"' + key + "\":"), key.size() + 2, "\"other\"");
        try {
            (void)decodeJSON<Persona>(without);
            ADD_FAILURE() << "accepted";
        } catch (const JSONError& error) {
            EXPECT_EQ(error.what(), key + ": is missing");
        }
    }
}

TEST_F(PersonaTests, TheBundledCatalogueHasSomethingForEveryEnd) {
    const auto& catalog = PersonaCatalog::bundled();

    EXPECT_GE(catalog.personas().size(), 8U);
    std::set<std::string> ids;
    for (const auto& persona : catalog.personas()) {
        SCOPED_TRACE(persona.id);
        EXPECT_FALSE(persona.id.empty());
        EXPECT_FALSE(persona.name.empty());
        EXPECT_FALSE(persona.symbol.empty());
        EXPECT_FALSE(persona.prompt(Anchor::calm).empty());
        EXPECT_FALSE(persona.prompt(Anchor::energetic).empty());
        EXPECT_NE(persona.prompt(Anchor::calm), persona.prompt(Anchor::energetic));
        EXPECT_EQ(catalog[persona.id], persona);
        ids.insert(persona.id);
    }
    EXPECT_EQ(ids.size(), catalog.personas().size());
    EXPECT_EQ(&PersonaCatalog::bundled(), &catalog);
}

using PersonaDeathTests = PersonaTests;

TEST_F(PersonaDeathTests, ABrokenResourceStopsTheProcessAtTheFixedPlace) {
    const auto dies = [&](const ResourceBundle& bundle, const std::string& reason) {
        EXPECT_DEATH((void)PersonaCatalog::loadedOrStopping(bundle),
                     "personas.json is missing or invalid: .*" + reason);
        EXPECT_DEATH((void)PersonaCatalog::loadedOrStopping(bundle), "QuillmereKit/Persona:70");
    };
    dies(ResourceBundle(folder.path() / "nowhere"), "the resource is not in the bundle");
    dies(bundleWith(R"({"personas":[]})"), "the file holds no persona");
    dies(bundleWith("{"), "");
}

}  // namespace
}  // namespace quillmere
