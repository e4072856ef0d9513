#include <gtest/gtest.h>

#include <string>

#include "QuillmereKit/Playback/Playlist.hpp"
#include "Tests/Support/Vectors.hpp"

namespace quillmere {
namespace {

LoopArtifact segment(std::size_t number) {
    return {.identity = {.moodID = "focus",
                         .calmPrompt = "calm",
                         .energeticPrompt = "energetic",
                         .seed = static_cast<std::int64_t>(number),
                         .model = "sa3_medium_mlx_v2"},
            .url = FileURL::fromPath("/loops/" + std::to_string(number) + ".wav"),
            .seconds = 120};
}

nlohmann::json numberOf(const LoopArtifact* artifact) {
    return artifact == nullptr ? nlohmann::json() : nlohmann::json(artifact->identity.seed);
}

QUILLMERE_VECTOR_TEST(SeededGenerator, "generator") {
    SeededGenerator generator{std::stoull(vector["state"].get<std::string>())};

    for (const auto& draw : vector["draws"]) EXPECT_EQ(std::to_string(generator.next()), draw.get<std::string>());
}

QUILLMERE_VECTOR_TEST(Playlist, "playlists") {
    const auto count = vector["count"].get<std::size_t>();
    std::vector<LoopArtifact> segments;
    for (std::size_t i = 0; i < count; ++i) segments.push_back(segment(i));
    Playlist playlist(std::move(segments), std::stoull(vector["seed"].get<std::string>()));

    for (std::size_t step = 0; step < vector["advance"].size(); ++step) {
        EXPECT_EQ(numberOf(playlist.advance()), vector["advance"][step]) << "step " << step;
        EXPECT_EQ(numberOf(playlist.upcoming()), vector["upcoming"][step]) << "step " << step;
        if (vector["appendAfterStep"] == step) playlist.append(segment(count));
    }

    EXPECT_EQ(playlist.rounds(), vector["rounds"].get<std::int64_t>());
    EXPECT_EQ(nlohmann::json(playlist.order()), vector["order"]);
    EXPECT_EQ(playlist.cursor(), vector["cursor"].get<std::size_t>());
    EXPECT_EQ(std::to_string(playlist.rng().state), vector["state"].get<std::string>());
}

}  // namespace
}  // namespace quillmere
