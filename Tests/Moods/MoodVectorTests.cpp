#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Generation/GenerationEngine.hpp"
#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Moods/BlendStep.hpp"
#include "QuillmereKit/Moods/Mood.hpp"
#include "QuillmereKit/Moods/MoodSpec.hpp"
#include "QuillmereKit/Moods/SoundGuide.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Support/Vectors.hpp"

// Golden data, computed by an independent implementation.

namespace quillmere {
namespace {

template <class T>
T valueOf(const test::VectorCase& vector) {
    return decodeJSON<T>(vector.dump());
}

template <class T>
std::optional<std::string> rawValueOf(const std::optional<T>& value) {
    if (!value) return std::nullopt;
    return std::string(rawValue(*value));
}

std::optional<std::string> textOf(const test::VectorCase& vector) {
    if (vector.is_null()) return std::nullopt;
    return vector.get<std::string>();
}

}  // namespace

QUILLMERE_VECTOR_TEST(BlendSteps, "blend-steps") {
    if (vector.contains("fromPosition")) {
        EXPECT_EQ(BlendStep::atPosition(vector["fromPosition"]).index(), vector["index"].get<std::int64_t>());
        return;
    }
    const BlendStep step(vector["index"].get<std::int64_t>());
    EXPECT_EQ(step.index(), vector["clamped"].get<std::int64_t>());
    EXPECT_EQ(step.position(), vector["position"].get<double>());
    EXPECT_EQ(step.weight(), vector["weight"].get<double>());
    EXPECT_EQ(step.label(), vector["label"].get<std::string>());
    EXPECT_EQ(rawValue(step.anchor()), vector["anchor"].get<std::string>());
    EXPECT_EQ(step.isAnchor(), vector["isAnchor"].get<bool>());
    std::vector<std::int64_t> indices;
    for (const auto near : step.byProximity()) indices.push_back(near.index());
    EXPECT_EQ(indices, vector["byProximity"].get<std::vector<std::int64_t>>());
}

QUILLMERE_VECTOR_TEST(Models, "models") {
    const auto text = vector["text"].get<std::string>();

    EXPECT_EQ(rawValueOf(modelOfIdentityModel(text)), textOf(vector["model"]));
    EXPECT_EQ(rawValueOf(engineOfIdentityModel(text)), textOf(vector["engine"]));
    EXPECT_EQ(rawValueOf(cachedModel(text)), textOf(vector["cachedModel"]));
}

QUILLMERE_VECTOR_TEST(Guides, "guides") {
    const auto guide = valueOf<SoundGuide>(vector["guide"]);

    EXPECT_EQ(guide.isValid(), vector["valid"].get<bool>());
    EXPECT_EQ(guide.offset(vector["seed"].get<std::int64_t>(), vector["seconds"].get<double>()),
              vector["offset"].get<std::int64_t>());
}

QUILLMERE_VECTOR_TEST(Moods, "moods") {
    const auto spec = valueOf<MoodSpec>(vector["spec"]);
    const Mood mood(spec);

    EXPECT_EQ(spec.calm.prompt(), vector["calmPrompt"].get<std::string>());
    EXPECT_EQ(spec.energetic.prompt(), vector["energeticPrompt"].get<std::string>());
    EXPECT_EQ(spec.isPlayable(), vector["playable"].get<bool>());
    EXPECT_EQ(mood.isPlayable(), vector["playable"].get<bool>());
    EXPECT_EQ(spec.tagsOnly().id, vector["tagsOnlyID"].get<std::string>());
    EXPECT_FALSE(spec.tagsOnly().soundGuide);
    ASSERT_EQ(vector["steps"].size(), 5U);
    for (const auto& expected : vector["steps"]) {
        const auto step = BlendStep::unclamped(expected["blend"].get<std::int64_t>());
        SCOPED_TRACE("step " + std::to_string(step.index()));
        EXPECT_EQ(spec.end(step), valueOf<MoodEnd>(expected["end"]));
        EXPECT_EQ(spec.prompt(step), expected["prompt"].get<std::string>());
        const auto identity = mood.identity(step, 7, "sa3_small-music_mlx_v2");
        ASSERT_EQ(identity.has_value(), !expected["identity"].is_null());
        if (identity) {
            EXPECT_EQ(*identity, valueOf<LoopIdentity>(expected["identity"]));
        }
    }
}

QUILLMERE_VECTOR_TEST(MoodsAlike, "moods-alike") {
    const auto a = valueOf<MoodSpec>(vector["a"]);
    const auto b = valueOf<MoodSpec>(vector["b"]);

    EXPECT_EQ(a.rendersLike(b), vector["rendersLike"].get<bool>());
    EXPECT_EQ(b.rendersLike(a), vector["rendersLike"].get<bool>());
    EXPECT_TRUE(a.rendersLike(a));
}

QUILLMERE_VECTOR_TEST(Identities, "identities") {
    const auto identity = valueOf<LoopIdentity>(vector["identity"]);

    EXPECT_EQ(identity.fingerprint(), vector["fingerprint"].get<std::string>());
    EXPECT_EQ(identity.filename(), vector["filename"].get<std::string>());
    ASSERT_EQ(identity.audio.has_value(), vector.contains("audioFingerprint"));
    if (identity.audio) {
        EXPECT_EQ(encodeJSON(*identity.audio, JSONWriter::Form::sorted), vector["audioJSON"].get<std::string>());
        EXPECT_EQ(identity.audio->fingerprint(), vector["audioFingerprint"].get<std::string>());
    }
}

}  // namespace quillmere
