#include "QuillmereKit/Sharing/LoopRecipe.hpp"

#include <utility>

#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere {
namespace {

[[noreturn]] void refuse(ImportError::Value reason) { throw ImportError(std::move(reason)); }

bool hasTempoInRange(const MoodEnd& end) {
    return !end.bpm || (*end.bpm >= MoodEnd::bpmRangeMin && *end.bpm <= MoodEnd::bpmRangeMax);
}

// Whether the carried specification is the one that the identity was made from.
bool isMoodOf(const MoodSpec& spec, const LoopIdentity& identity) {
    return spec.id == identity.moodID && spec.isPlayable() &&                //
           hasTempoInRange(spec.calm) && hasTempoInRange(spec.energetic) &&  //
           spec.calm.prompt() == identity.calmPrompt &&                      //
           spec.energetic.prompt() == identity.energeticPrompt &&            //
           identity.prompt && *identity.prompt == spec.prompt(identity.blend);
}

bool hasValidInputs(const LoopIdentity& identity) {
    return identity.blend.index() >= 0 && identity.blend.index() <= 4 && identity.seed >= 0 &&
           !identity.moodID.empty() && consistsOfLettersDigitsAndHyphens(identity.moodID);
}

}  // namespace

const std::set<std::string, std::less<>>& builtInMoodIDs() {
    static const auto ids = [] {
        std::set<std::string, std::less<>> made;
        for (const Mood& mood : MoodCatalog::builtIn()) made.insert(mood.id);
        return made;
    }();
    return ids;
}

LoopRecipe LoopRecipe::make(std::string name, LoopIdentity identity, std::optional<double> seconds,
                            std::optional<double> seamDB, std::optional<MoodSpec> moodSpec,
                            std::optional<std::string> engineBuild, std::optional<RecipeOrigin> origin,
                            std::optional<std::string> audioSHA256) {
    std::string fingerprint = identity.fingerprint();
    return {.schema = std::string(currentSchema),
            .name = std::move(name),
            .identity = std::move(identity),
            .fingerprint = std::move(fingerprint),
            .moodSpec = std::move(moodSpec),
            .engineBuild = std::move(engineBuild),
            .origin = std::move(origin),
            .audioSHA256 = std::move(audioSHA256),
            .seconds = seconds,
            .seamDB = seamDB};
}

LoopRecipe LoopRecipe::make(const LoopArtifact& artifact, std::string name, std::optional<MoodSpec> moodSpec,
                            std::optional<std::string> engineBuild, std::optional<RecipeOrigin> origin,
                            std::optional<std::string> audioSHA256) {
    return make(std::move(name), artifact.identity, artifact.seconds, artifact.seamDB, std::move(moodSpec),
                std::move(engineBuild), std::move(origin), std::move(audioSHA256));
}

LoopRecipe LoopRecipe::forSharing() const {
    if (identity.isRecording()) refuse(ImportError::RequiresAudioExport{});
    if (!identity.audio) return *this;

    if (!moodSpec) refuse(ImportError::InvalidMood{});
    const MoodSpec tagsOnly = moodSpec->tagsOnly();
    auto variant = Mood(tagsOnly).identity(identity.blend, identity.seed, identity.model);
    if (!variant) refuse(ImportError::InvalidMood{});
    // No audio of the new identity was rendered yet, so nothing is said about it.
    return make(name + " · tags only", std::move(*variant), {}, {}, tagsOnly, engineBuild, origin);
}

std::string LoopRecipe::encoded() const { return encodeJSON(forSharing(), JSONWriter::Form::pretty); }

LoopRecipe LoopRecipe::decode(std::string_view bytes) {
    auto recipe = decodeJSON<LoopRecipe>(bytes);
    recipe.validate();
    return recipe;
}

void LoopRecipe::validate(const std::set<std::string, std::less<>>& knownMoods) const {
    if (identity.audio || (moodSpec && moodSpec->soundGuide)) refuse(ImportError::RequiresAudioExport{});
    if (schema != currentSchema && schema != olderSchema) refuse(ImportError::UnsupportedSchema{schema});
    if (!hasValidInputs(identity)) refuse(ImportError::InvalidInputs{});
    if (const auto actual = identity.fingerprint(); actual != fingerprint) {
        refuse(ImportError::FingerprintMismatch{fingerprint, actual});
    }
    // An older recipe's specification is not trusted to recreate a user mood.
    if (schema == currentSchema && identity.moodID.starts_with(MoodSpec::idPrefix)) {
        if (!moodSpec || !isMoodOf(*moodSpec, identity)) refuse(ImportError::InvalidMood{});
        return;
    }
    if (!knownMoods.contains(identity.moodID)) refuse(ImportError::UnknownMood{identity.moodID});
}

void LoopRecipe::validateRendering(const std::optional<std::string>& localBuild) const {
    if (identity.recipe != LoopIdentity::currentRecipe) refuse(ImportError::UnsupportedRecipe{identity.recipe});
    if (!localBuild) refuse(ImportError::UnavailableModel{identity.model});
    if (!engineBuild) refuse(ImportError::MissingEngineBuild{});
    if (*engineBuild != *localBuild) refuse(ImportError::EngineBuildMismatch{});
}

void encode(JSONWriter& writer, const LoopRecipe& recipe) {
    writer.beginObject();
    writer.member("schema", recipe.schema);
    writer.member("name", recipe.name);
    writer.member("identity", recipe.identity);
    writer.member("fingerprint", recipe.fingerprint);
    writer.member("moodSpec", recipe.moodSpec);
    writer.member("engineBuild", recipe.engineBuild);
    writer.member("origin", recipe.origin);
    writer.member("audioSHA256", recipe.audioSHA256);
    writer.member("seconds", recipe.seconds);
    writer.member("seamDB", recipe.seamDB);
    writer.endObject();
}

template <>
LoopRecipe decode<LoopRecipe>(const JSONValue& value) {
    return {.schema = value.member<std::string>("schema"),
            .name = value.member<std::string>("name"),
            .identity = value.member<LoopIdentity>("identity"),
            .fingerprint = value.member<std::string>("fingerprint"),
            .moodSpec = value.optionalMember<MoodSpec>("moodSpec"),
            .engineBuild = value.optionalMember<std::string>("engineBuild"),
            .origin = value.optionalMember<RecipeOrigin>("origin"),
            .audioSHA256 = value.optionalMember<std::string>("audioSHA256"),
            .seconds = value.optionalMember<double>("seconds"),
            .seamDB = value.optionalMember<double>("seamDB")};
}

}  // namespace quillmere

std::size_t std::hash<quillmere::LoopRecipe>::operator()(const quillmere::LoopRecipe& recipe) const noexcept {
    return quillmere::Hasher{}
        .add(recipe.schema)
        .add(recipe.name)
        .add(recipe.identity)
        .add(recipe.fingerprint)
        .add(recipe.moodSpec)
        .add(recipe.engineBuild)
        .add(recipe.origin)
        .add(recipe.audioSHA256)
        .add(recipe.seconds)
        .add(recipe.seamDB)
        .value();
}
