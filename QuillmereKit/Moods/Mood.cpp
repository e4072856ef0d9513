#include "QuillmereKit/Moods/Mood.hpp"

#include <utility>

#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Moods/AudioUse.hpp"
#include "QuillmereKit/Platform/Hashing.hpp"

namespace quillmere {
namespace {

std::optional<Mood::Prompts> promptsOf(const MoodSpec& spec) {
    if (!spec.isPlayable()) return std::nullopt;
    return Mood::Prompts{{Anchor::calm, spec.calm.prompt()}, {Anchor::energetic, spec.energetic.prompt()}};
}

}  // namespace

Mood::Mood(std::string moodID, std::string moodName, MoodFamily moodFamily, MoodGlyph moodGlyph,
           std::optional<Prompts> moodPrompts)
    : id(std::move(moodID)),
      name(std::move(moodName)),
      family(moodFamily),
      glyph(moodGlyph),
      prompts(std::move(moodPrompts)) {}

Mood::Mood(MoodSpec moodSpec)
    : id(moodSpec.id),
      name(moodSpec.name),
      family(MoodFamily::mine),
      glyph(moodSpec.glyph),
      prompts(promptsOf(moodSpec)),
      spec(std::move(moodSpec)) {}

std::optional<std::string> Mood::prompt(Anchor anchor) const {
    if (!prompts) return std::nullopt;
    const auto found = prompts->find(anchor);
    if (found == prompts->end()) return std::nullopt;
    return found->second;
}

std::optional<LoopIdentity> Mood::identity(BlendStep blend, std::int64_t seed, std::string_view model) const {
    auto calm = prompt(Anchor::calm);
    auto energetic = prompt(Anchor::energetic);
    if (!calm || !energetic) return std::nullopt;

    LoopIdentity identity{
        .moodID = id,
        .blend = blend,
        .calmPrompt = std::move(*calm),
        .energeticPrompt = std::move(*energetic),
        .seed = seed,
        .model = std::string(model),
        .prompt = std::nullopt,
        .audio = std::nullopt,
        .recipe = LoopIdentity::currentRecipe,
    };
    if (!spec) return identity;
    identity.prompt = spec->prompt(blend);
    if (!spec->soundGuide) return identity;
    const SoundGuide& guide = *spec->soundGuide;
    identity.model = identityModel(guide.model);
    identity.audio = AudioUse{guide, guide.offset(seed, trackSeconds), AudioUse::Kind::song};
    return identity;
}

}  // namespace quillmere

std::size_t std::hash<quillmere::Mood>::operator()(const quillmere::Mood& mood) const noexcept {
    quillmere::Hasher hasher;
    hasher.add(mood.id).add(mood.name).add(mood.family).add(mood.glyph).add(mood.isPlayable());
    if (mood.prompts) {
        hasher.add(mood.prompts->size());
        for (const auto& [anchor, prompt] : *mood.prompts) hasher.add(anchor).add(prompt);
    }
    return hasher.add(mood.spec).value();
}
