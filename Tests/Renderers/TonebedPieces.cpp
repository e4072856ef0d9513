#include "Tests/Renderers/TonebedPieces.hpp"

#include "QuillmereKit/Moods/MoodCatalog.hpp"

namespace quillmere::test {

std::vector<Mood> playableMoods() {
    std::vector<Mood> moods;
    for (const Mood& mood : MoodCatalog::builtIn()) {
        if (mood.isPlayable()) moods.push_back(mood);
    }
    return moods;
}

tonebed::Piece pieceOf(const Mood& mood, std::int64_t blend, std::int64_t seed, double seconds) {
    const auto identity = mood.identity(BlendStep(blend), seed, "sa3_medium_mlx_v2").value();
    return {.moodID = identity.moodID,
            .calmPrompt = identity.calmPrompt,
            .energeticPrompt = identity.energeticPrompt,
            .prompt = identity.prompt,
            .blendIndex = identity.blend.index(),
            .seed = identity.seed,
            .frames = static_cast<std::int64_t>(seconds * 48000)};
}

tonebed::Piece pieceOf(const std::string& prompt, std::int64_t seed, double seconds) {
    tonebed::Piece piece;
    piece.moodID = "my-mood";
    piece.prompt = prompt;
    piece.blendIndex = 2;
    piece.seed = seed;
    piece.frames = static_cast<std::int64_t>(seconds * 48000);
    return piece;
}

Rendering::Rendering(const tonebed::Piece& piece) {
    tonebed::Synthesizer synthesizer(piece);
    synthesizer.play(synthesizer.framesToPlay());
    synthesizer.finish();
    score = synthesizer.score();
    samples.resize(static_cast<std::size_t>(2 * piece.frames));
    synthesizer.read(0, samples);
    seamStep = synthesizer.seamStep();
    brightness = synthesizer.brightness();
    makeupGain = synthesizer.makeupGain();
}

std::vector<double> Rendering::side(std::size_t channel) const {
    std::vector<double> values;
    values.reserve(samples.size() / 2);
    for (std::size_t i = channel; i < samples.size(); i += 2) values.push_back(samples[i] / 32768.0);
    return values;
}

}  // namespace quillmere::test
