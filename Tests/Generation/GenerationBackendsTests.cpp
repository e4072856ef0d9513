#include "QuillmereKit/Generation/GenerationBackends.hpp"

#include "Tests/Generation/Samples.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

namespace quillmere {
namespace {

using test::sampleIdentity;
using test::sampleLoudness;
using test::samplePiece;

const FileURL file = FileURL::fromPath("/music/rain.wav");

// Notes what it is asked for.
struct RecordingService : GenerationService {
    struct Request {
        LoopIdentity identity;
        double seconds;
        GenerationPace pace;
        friend bool operator==(const Request&, const Request&) = default;
    };

    using GenerationService::render;
    LoopArtifact render(const LoopIdentity&, double, const PartialHandler&, std::stop_token) override {
        throw Error("only the fullest form is asked for");
    }
    LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace pace, const AudioHandler& onAudio,
                        const StageHandler& onStage, std::stop_token stop) override {
        requests.push_back({identity, seconds, pace});
        lastStop = stop;
        onStage(GenerationStage::Preparing{});
        onAudio({.url = file, .seconds = 5, .loudness = sampleLoudness(-18)});
        return samplePiece(identity, file, seconds);
    }
    std::optional<std::string> engineBuild(const LoopIdentity& identity) override {
        return build + " for " + identity.model;
    }

    std::string build = "build 1";
    std::vector<Request> requests;
    std::stop_token lastStop;
};

struct GenerationBackendsTests : testing::Test {
    const LoopIdentity standard = sampleIdentity(1, "sa3_medium_mlx_v2");
    const LoopIdentity background = sampleIdentity(1, "sa3_small-music_coreml_v1");
    const LoopIdentity unknown = sampleIdentity(1, "sa3_medium_mlx_v9");
    std::shared_ptr<RecordingService> service = std::make_shared<RecordingService>();
    GenerationBackends backends;

    std::vector<GenerationAudio> audio;
    std::vector<GenerationStage> stages;
    std::vector<double> partial;
    GenerationService::AudioHandler onAudio = [this](const GenerationAudio& part) { audio.push_back(part); };
    GenerationService::StageHandler onStage = [this](const GenerationStage& stage) { stages.push_back(stage); };
    GenerationService::PartialHandler onPartial = [this](const FileURL& url, double seconds) {
        EXPECT_EQ(url, file);
        partial.push_back(seconds);
    };

    LoopArtifact render(const LoopIdentity& identity, double seconds) {
        return backends.render(identity, seconds, GenerationPace::gentle, onAudio, onStage, {});
    }
};

TEST_F(GenerationBackendsTests, StartsWithTheServicesItIsGiven) {
    EXPECT_TRUE(backends.isEmpty());
    EXPECT_FALSE(backends.isAvailable(GenerationEngine::mlx));

    const GenerationBackends given({{GenerationEngine::stableAudioCoreML, service}});

    EXPECT_FALSE(given.isEmpty());
    EXPECT_TRUE(given.isAvailable(GenerationEngine::stableAudioCoreML));
    EXPECT_FALSE(given.isAvailable(GenerationEngine::mlx));
}

TEST_F(GenerationBackendsTests, ARegisteredServiceIsAvailableForItsEngineOnly) {
    backends.registerService(service, GenerationEngine::mlx);

    EXPECT_FALSE(backends.isEmpty());
    EXPECT_TRUE(backends.isAvailable(GenerationEngine::mlx));
    EXPECT_FALSE(backends.isAvailable(GenerationEngine::stableAudioCoreML));
}

TEST_F(GenerationBackendsTests, TheIdentityChoosesTheService) {
    const auto other = std::make_shared<RecordingService>();
    backends.registerService(service, GenerationEngine::mlx);
    backends.registerService(other, GenerationEngine::stableAudioCoreML);

    (void)render(standard, 30);
    (void)render(background, 40);

    EXPECT_EQ(service->requests, (std::vector<RecordingService::Request>{{standard, 30, GenerationPace::gentle}}));
    EXPECT_EQ(other->requests, (std::vector<RecordingService::Request>{{background, 40, GenerationPace::gentle}}));
}

TEST_F(GenerationBackendsTests, ALaterServiceReplacesTheEarlierOne) {
    const auto later = std::make_shared<RecordingService>();
    backends.registerService(service, GenerationEngine::mlx);
    backends.registerService(later, GenerationEngine::mlx);

    (void)render(standard, 30);

    EXPECT_TRUE(service->requests.empty());
    EXPECT_EQ(later->requests.size(), 1u);
}

TEST_F(GenerationBackendsTests, RendersAreAtMostAFullTrackLong) {
    backends.registerService(service, GenerationEngine::mlx);

    for (const auto& [asked, reaches] : {std::pair{300.0, 120.0}, {120.0, 120.0}, {119.5, 119.5}, {30.0, 30.0}}) {
        SCOPED_TRACE(asked);
        EXPECT_EQ(render(standard, asked).seconds, reaches);
        EXPECT_EQ(service->requests.back().seconds, reaches);
    }
}

TEST_F(GenerationBackendsTests, EveryFormAsksForTheFullestOne) {
    backends.registerService(service, GenerationEngine::mlx);
    const std::stop_source stop;

    (void)backends.render(standard, 300, onPartial, stop.get_token());
    EXPECT_EQ(service->requests.back(), (RecordingService::Request{standard, 120, GenerationPace::fast}));
    EXPECT_TRUE(stages.empty());

    (void)backends.render(standard, 30, onPartial, onStage, stop.get_token());
    EXPECT_EQ(service->requests.back(), (RecordingService::Request{standard, 30, GenerationPace::fast}));
    EXPECT_EQ(stages.size(), 1u);

    (void)backends.render(standard, 30, GenerationPace::background, onPartial, onStage, stop.get_token());
    EXPECT_EQ(service->requests.back(), (RecordingService::Request{standard, 30, GenerationPace::background}));
    EXPECT_EQ(stages.size(), 2u);
    EXPECT_EQ(partial, (std::vector<double>{5, 5, 5}));

    (void)backends.render(standard, 30, GenerationPace::gentle, onAudio, onStage, stop.get_token());
    EXPECT_EQ(service->requests.back(), (RecordingService::Request{standard, 30, GenerationPace::gentle}));
    EXPECT_EQ(stages, (std::vector<GenerationStage>(3, GenerationStage::Preparing{})));
    ASSERT_EQ(audio.size(), 1u);
    EXPECT_EQ(audio.front(), (GenerationAudio{.url = file, .seconds = 5, .loudness = sampleLoudness(-18)}));
    EXPECT_EQ(service->lastStop, stop.get_token());
}

TEST_F(GenerationBackendsTests, AnUnknownModelStringIsRefusedByName) {
    backends.registerService(service, GenerationEngine::mlx);

    const GenerationBackends::Failure expected(GenerationBackends::Failure::UnsupportedIdentity{"sa3_medium_mlx_v9"});
    try {
        (void)render(unknown, 30);
        ADD_FAILURE() << "no exception";
    } catch (const GenerationBackends::Failure& failure) {
        EXPECT_EQ(failure, expected);
        EXPECT_STREQ(failure.what(), "No generation engine supports sa3_medium_mlx_v9.");
        EXPECT_EQ(failure.errorDescription(), "No generation engine supports sa3_medium_mlx_v9.");
    }
    EXPECT_THROW((void)backends.render(unknown, 30, onPartial, {}), GenerationBackends::Failure);
    EXPECT_THROW((void)backends.render(unknown, 30, onPartial, onStage, {}), GenerationBackends::Failure);
    EXPECT_THROW((void)backends.render(unknown, 30, GenerationPace::fast, onPartial, onStage, {}),
                 GenerationBackends::Failure);
}

TEST_F(GenerationBackendsTests, AnEngineWithoutAServiceIsRefusedWithItsReason) {
    struct Row {
        LoopIdentity identity;
        GenerationEngine engine;
        const char* text;
    };
    const Row rows[] = {
        {standard, GenerationEngine::mlx, "Preparing music files for Standard. Starter music can play meanwhile."},
        {background, GenerationEngine::stableAudioCoreML,
         "Download Background music files in Settings › New music › Advanced. Requires macOS 15 or later."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.identity.model);
        try {
            (void)render(row.identity, 30);
            ADD_FAILURE() << "no exception";
        } catch (const GenerationBackends::Failure& failure) {
            EXPECT_EQ(failure.value(),
                      (GenerationBackends::Failure::Value(GenerationBackends::Failure::Unavailable{row.engine})));
            EXPECT_STREQ(failure.what(), row.text);
        }
    }
}

TEST_F(GenerationBackendsTests, FailuresOfAServicePassThroughUnchanged) {
    struct OutOfRain : Error {
        OutOfRain() : Error("out of rain") {}
    };
    struct FailingService : RecordingService {
        using GenerationService::render;
        LoopArtifact render(const LoopIdentity&, double, GenerationPace, const AudioHandler&, const StageHandler&,
                            std::stop_token) override {
            throw OutOfRain();
        }
    };
    backends.registerService(std::make_shared<FailingService>(), GenerationEngine::mlx);

    EXPECT_THROW((void)render(standard, 30), OutOfRain);
    EXPECT_THROW((void)backends.render(standard, 30, onPartial, {}), OutOfRain);
}

TEST_F(GenerationBackendsTests, TheBuildIsTheServicesOwn) {
    EXPECT_EQ(backends.engineBuild(standard), std::nullopt);

    backends.registerService(service, GenerationEngine::mlx);

    EXPECT_EQ(backends.engineBuild(standard), "build 1 for sa3_medium_mlx_v2");
    EXPECT_EQ(backends.engineBuild(background), std::nullopt);
    EXPECT_EQ(backends.engineBuild(unknown), std::nullopt);
}

TEST_F(GenerationBackendsTests, AReplacedServiceFinishesItsRender) {
    struct BlockedService : RecordingService {
        using GenerationService::render;
        LoopArtifact render(const LoopIdentity& identity, double seconds, GenerationPace, const AudioHandler&,
                            const StageHandler&, std::stop_token) override {
            started.count_down();
            released.wait();
            auto piece = samplePiece(identity, file, seconds);
            piece.engineBuild = build;
            return piece;
        }
        std::latch started{1}, released{1};
    };
    auto blocked = std::make_shared<BlockedService>();
    auto& latches = *blocked;
    backends.registerService(std::move(blocked), GenerationEngine::mlx);
    std::optional<LoopArtifact> result;
    std::jthread renders([&] { result = render(standard, 30); });
    latches.started.wait();

    backends.registerService(service, GenerationEngine::mlx);  // not held up by the render, and does not end it
    EXPECT_EQ(backends.engineBuild(standard), "build 1 for sa3_medium_mlx_v2");
    latches.released.count_down();
    renders.join();

    ASSERT_TRUE(result);
    EXPECT_EQ(result->engineBuild, "build 1");
}

TEST_F(GenerationBackendsTests, MayBeAskedFromManyThreads) {
    std::latch start(4);
    std::atomic<int> answers = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                for (int j = 0; j < 500; ++j) {
                    if (i == 0) backends.registerService(std::make_shared<RecordingService>(), GenerationEngine::mlx);
                    if (i != 0 && backends.isAvailable(GenerationEngine::mlx) && backends.engineBuild(standard)) {
                        ++answers;
                    }
                }
            });
        }
    }
    EXPECT_TRUE(backends.isAvailable(GenerationEngine::mlx));
    EXPECT_LE(answers, 1500);
}

TEST_F(GenerationBackendsTests, ANullServiceStopsTheProcess) {
    EXPECT_DEATH(backends.registerService(nullptr, GenerationEngine::mlx), "must not be null");
    EXPECT_DEATH(GenerationBackends({{GenerationEngine::mlx, nullptr}}), "must not be null");
}

}  // namespace
}  // namespace quillmere
