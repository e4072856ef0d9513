#pragma once

#include <string>
#include <utility>

#include "QuillmereKit/Library/LoopArtifact.hpp"

namespace quillmere::test {

/// An identity of its own for each seed.
[[nodiscard]] inline LoopIdentity sampleIdentity(std::int64_t seed, std::string model = "sa3_medium_mlx_v2") {
    LoopIdentity identity;
    identity.moodID = "rain";
    identity.calmPrompt = "soft rain";
    identity.energeticPrompt = "heavy rain";
    identity.seed = seed;
    identity.model = std::move(model);
    return identity;
}

/// A piece of which only the necessary is known.
[[nodiscard]] inline LoopArtifact samplePiece(LoopIdentity identity, FileURL url, double seconds) {
    return {.identity = std::move(identity),
            .url = std::move(url),
            .seconds = seconds,
            .seamDB = std::nullopt,
            .quality = std::nullopt,
            .leadIn = std::nullopt,
            .engineBuild = std::nullopt,
            .origin = std::nullopt};
}

[[nodiscard]] inline AudioLoudness sampleLoudness(double integratedLUFS) {
    return {.integratedLUFS = integratedLUFS, .peak = 0.5, .seconds = std::nullopt};
}

}  // namespace quillmere::test
