#include "QuillmereKit/Generation/GenerationService.hpp"

#include "Tests/Generation/Samples.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace quillmere {
namespace {

const LoopIdentity identity = test::sampleIdentity(1);
const FileURL file = FileURL::fromPath("/music/rain.wav");
const auto ignoreStages = [](const GenerationStage&) {};

LoopArtifact piece(const LoopIdentity& of, double seconds) { return test::samplePiece(of, file, seconds); }

// A renderer that can do no more than every renderer must.
struct PlainRenderer : GenerationService {
    using GenerationService::render;
    LoopArtifact render(const LoopIdentity& of, double seconds, const PartialHandler& onPartial,
                        std::stop_token stop) override {
        isStopPossible = stop.stop_possible();
        onPartial(file, seconds / 2);
        return piece(of, seconds);
    }
    bool isStopPossible = false;
};

struct StageRenderer : PlainRenderer {
    using GenerationService::render;
    LoopArtifact render(const LoopIdentity& of, double seconds, const PartialHandler& onPartial,
                        const StageHandler& onStage, std::stop_token stop) override {
        onStage(GenerationStage::Preparing{});
        return PlainRenderer::render(of, seconds, onPartial, stop);
    }
};

struct PacedRenderer : StageRenderer {
    using GenerationService::render;
    LoopArtifact render(const LoopIdentity& of, double seconds, GenerationPace pace, const PartialHandler& onPartial,
                        const StageHandler& onStage, std::stop_token stop) override {
        lastPace = pace;
        return StageRenderer::render(of, seconds, onPartial, onStage, stop);
    }
    std::optional<GenerationPace> lastPace;
};

TEST(GenerationServiceTests, ARendererNeedNotKnowItsBuild) {
    PlainRenderer renderer;

    EXPECT_EQ(renderer.engineBuild(identity), std::nullopt);
}

TEST(GenerationServiceTests, EveryFormReachesThePlainest) {
    PlainRenderer renderer;
    GenerationService& service = renderer;
    std::vector<double> partial;
    const GenerationService::PartialHandler onPartial = [&](const FileURL& url, double seconds) {
        EXPECT_EQ(url, file);
        partial.push_back(seconds);
    };
    std::vector<GenerationAudio> audio;
    const GenerationService::AudioHandler onAudio = [&](const GenerationAudio& part) { audio.push_back(part); };
    const GenerationService::StageHandler noStage = [](const GenerationStage&) { ADD_FAILURE() << "a stage"; };
    const std::stop_source stop;

    EXPECT_EQ(service.render(identity, 10, onPartial, stop.get_token()), piece(identity, 10));
    EXPECT_EQ(service.render(identity, 20, onPartial, noStage, stop.get_token()), piece(identity, 20));
    EXPECT_EQ(service.render(identity, 30, GenerationPace::gentle, onPartial, noStage, stop.get_token()),
              piece(identity, 30));
    EXPECT_EQ(service.render(identity, 40, GenerationPace::gentle, onAudio, noStage, stop.get_token()),
              piece(identity, 40));

    EXPECT_EQ(partial, (std::vector<double>{5, 10, 15}));
    EXPECT_EQ(audio, (std::vector<GenerationAudio>{{.url = file, .seconds = 20, .loudness = std::nullopt}}));
    EXPECT_TRUE(renderer.isStopPossible);
}

TEST(GenerationServiceTests, AFormThatARendererOffersIsUsedByTheFormsAboveIt) {
    PacedRenderer renderer;
    GenerationService& service = renderer;
    const GenerationService::AudioHandler ignoreAudio = [](const GenerationAudio&) {};
    std::vector<GenerationStage> stages;
    const GenerationService::StageHandler onStage = [&](const GenerationStage& stage) { stages.push_back(stage); };

    EXPECT_EQ(service.render(identity, 10, GenerationPace::background, ignoreAudio, onStage, {}), piece(identity, 10));

    EXPECT_EQ(renderer.lastPace, GenerationPace::background);
    EXPECT_EQ(stages, (std::vector<GenerationStage>{GenerationStage::Preparing{}}));
}

TEST(GenerationServiceTests, FailuresPassThroughTheDefaults) {
    struct FailingRenderer : GenerationService {
        using GenerationService::render;
        LoopArtifact render(const LoopIdentity&, double, const PartialHandler&, std::stop_token) override {
            throw std::runtime_error("no music today");
        }
    } renderer;
    GenerationService& service = renderer;
    const GenerationService::AudioHandler ignoreAudio = [](const GenerationAudio&) {};

    try {
        service.render(identity, 10, GenerationPace::fast, ignoreAudio, ignoreStages, {});
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "no music today");
    }
}

TEST(GenerationServiceTests, PartialAudioIsComparedByAllItsFields) {
    const GenerationAudio audio{.url = file, .seconds = 5, .loudness = test::sampleLoudness(-18)};

    EXPECT_EQ(audio, (GenerationAudio{.url = file, .seconds = 5, .loudness = test::sampleLoudness(-18)}));
    EXPECT_NE(audio, (GenerationAudio{.url = FileURL::fromPath("/b"), .seconds = 5, .loudness = audio.loudness}));
    EXPECT_NE(audio, (GenerationAudio{.url = file, .seconds = 6, .loudness = audio.loudness}));
    EXPECT_NE(audio, (GenerationAudio{.url = file, .seconds = 5, .loudness = std::nullopt}));
}

}  // namespace
}  // namespace quillmere
