#pragma once

#include "QuillmereKit/Moods/Mood.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Sharing/LoopRecipe.hpp"

namespace quillmere::test {

inline const std::string sampleModel = "sa3_medium_mlx_v2";

/// A mood specification of the user's own, playable.
inline MoodSpec sampleSpec(const std::string& id = "my-12ab34cd") {
    return MoodSpec{.id = id,
                    .name = "Rain",
                    .glyph = MoodGlyph::grain,
                    .calm = {.tags = {{TagCategory::genre, "ambient"}}, .text = "soft", .bpm = 60},
                    .energetic = {.tags = {{TagCategory::genre, "downtempo"}}, .text = "driving", .bpm = 90}};
}

/// The same with guide audio.
inline MoodSpec guidedSpec(const std::string& id = "my-12ab34cd") {
    MoodSpec spec = sampleSpec(id);
    spec.soundGuide = SoundGuide{.format = std::string(SoundGuide::currentFormat),
                                 .assetID = std::string(64, 'a'),
                                 .storageID = id,
                                 .model = GenerationModel::medium,
                                 .sampleCount = 44100 * 200,
                                 .latentCount = 2154,
                                 .sourceName = "piano.wav",
                                 .sourceOffset = 0,
                                 .strength = 0.5};
    return spec;
}

/// A valid recipe of a built-in mood.
inline LoopRecipe builtInRecipe(std::int64_t seed = 1) {
    return LoopRecipe::make("Design Flow", MoodCatalog::defaultMood().identity(BlendStep(1), seed, sampleModel).value(),
                            120.0, -40.0, {}, "build-1", RecipeOrigin{"A chip"});
}

/// A valid recipe of a user mood.
inline LoopRecipe customRecipe(const MoodSpec& spec = sampleSpec(), std::int64_t blend = 2) {
    return LoopRecipe::make("Rain", Mood(spec).identity(BlendStep(blend), 5, sampleModel).value(), 120.0, {}, spec,
                            "build-1");
}

}  // namespace quillmere::test
