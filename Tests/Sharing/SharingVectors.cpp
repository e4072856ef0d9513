#include <gtest/gtest.h>

#include <string>

#include "QuillmereKit/Library/LoopArtifact.hpp"
#include "QuillmereKit/Moods/MoodSpec.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Sharing/RecipeBundle.hpp"
#include "Tests/Support/Vectors.hpp"

namespace quillmere {
namespace {

template <class T>
bool isAccepted(const std::string& text) {
    try {
        static_cast<void>(decodeJSON<T>(text));
        return true;
    } catch (const JSONError&) {
        return false;
    }
}

QUILLMERE_VECTOR_TEST(JSONDecoding, "json-decoding") {
    const auto type = vector["type"].get<std::string>();
    const auto text = vector["text"].get<std::string>();
    SCOPED_TRACE(text.substr(0, 200));
    bool accepted = false;
    if (type == "BlendStep") {
        accepted = isAccepted<BlendStep>(text);
    } else if (type == "PromptTag") {
        accepted = isAccepted<PromptTag>(text);
    } else if (type == "MoodEnd") {
        accepted = isAccepted<MoodEnd>(text);
    } else if (type == "MoodSpec") {
        accepted = isAccepted<MoodSpec>(text);
    } else if (type == "SoundGuide") {
        accepted = isAccepted<SoundGuide>(text);
    } else if (type == "AudioUse") {
        accepted = isAccepted<AudioUse>(text);
    } else if (type == "LoopIdentity") {
        accepted = isAccepted<LoopIdentity>(text);
    } else if (type == "LoopQuality") {
        accepted = isAccepted<LoopQuality>(text);
    } else if (type == "AudioLoudness") {
        accepted = isAccepted<AudioLoudness>(text);
    } else if (type == "LoopArtifact") {
        accepted = isAccepted<LoopArtifact>(text);
    } else if (type == "LoopRecipe") {
        accepted = isAccepted<LoopRecipe>(text);
    } else if (type == "RecipeBundle") {
        accepted = isAccepted<RecipeBundle>(text);
    } else {
        FAIL() << "a type that no reader is known for: " << type;
    }

    EXPECT_EQ(accepted, vector["accepted"].get<bool>());
}

template <class T>
void expectForms(const test::VectorCase& vector) {
    using Form = JSONWriter::Form;
    const T value = decodeJSON<T>(vector["value"].dump());

    EXPECT_EQ(encodeJSON(value, Form::sorted), vector["sorted"].get<std::string>());
    EXPECT_EQ(encodeJSON(value, Form::pretty), vector["pretty"].get<std::string>());
    if (vector.contains("sortedWithoutLegacy") && !vector["sortedWithoutLegacy"].is_null()) {
        EXPECT_EQ(encodeJSON(value, Form::sorted, {{std::string(omitLegacyMusicFields), true}}),
                  vector["sortedWithoutLegacy"].get<std::string>());
    }
    EXPECT_EQ(decodeJSON<T>(vector["sorted"].get<std::string>()), value);
    EXPECT_EQ(decodeJSON<T>(vector["pretty"].get<std::string>()), value);
    EXPECT_EQ(decodeJSON<T>(encodeJSON(value, Form::compact)), value);
}

QUILLMERE_VECTOR_TEST(JSONDocuments, "json-documents") {
    const auto type = vector["type"].get<std::string>();
    if (type == "MoodSpec") {
        expectForms<MoodSpec>(vector);
    } else if (type == "LoopIdentity") {
        expectForms<LoopIdentity>(vector);
    } else if (type == "LoopArtifact") {
        expectForms<LoopArtifact>(vector);
    } else if (type == "LoopRecipe") {
        expectForms<LoopRecipe>(vector);
    } else if (type == "RecipeBundle") {
        expectForms<RecipeBundle>(vector);
    } else {
        FAIL() << "a type that no writer is known for: " << type;
    }
}

std::string outcomeOf(const auto& operation) {
    try {
        operation();
        return "ok";
    } catch (const ImportError& error) {
        return std::string(error.caseName());
    }
}

QUILLMERE_VECTOR_TEST(Recipes, "recipes") {
    SCOPED_TRACE(vector.value("note", ""));
    const auto recipe = decodeJSON<LoopRecipe>(vector["recipe"].dump());

    EXPECT_EQ(outcomeOf([&] { recipe.validate(); }), vector["validate"].get<std::string>());
    if (vector.contains("shareError") && !vector["shareError"].is_null()) {
        EXPECT_EQ(outcomeOf([&] { static_cast<void>(recipe.encoded()); }), vector["shareError"].get<std::string>());
    } else {
        EXPECT_EQ(recipe.encoded(), vector["shared"].get<std::string>());
    }
}

}  // namespace
}  // namespace quillmere
