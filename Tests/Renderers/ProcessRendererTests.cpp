#include "Renderers/ProcessRenderer.hpp"

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <latch>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "QuillmereKit/Generation/GenerationBackends.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "Tests/Renderers/ProcessRendererFixture.hpp"

namespace quillmere::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(ProcessRendererTests, RendersAPieceIntoTheLibrarysFolder) {
    options.origin = RecipeOrigin{"Test Processor"};

    const auto piece = render({"whole"});

    EXPECT_EQ(piece.identity, identity);
    EXPECT_EQ(piece.url, FileURL::fromPath(loops / pieceName()));
    EXPECT_EQ(piece.seconds, 0.5);
    EXPECT_EQ(piece.seamDB, -41.5);
    ASSERT_TRUE(piece.quality);
    EXPECT_EQ(piece.quality->brightness, 0.25);
    EXPECT_EQ(piece.quality->makeupDB, 1.5);
    EXPECT_EQ(piece.leadIn, 0.125);
    EXPECT_EQ(piece.engineBuild, "test-engine 1");
    EXPECT_EQ(piece.origin, RecipeOrigin{"Test Processor"});
    EXPECT_THAT(library(), ElementsAre(pieceName()));
}

TEST_F(ProcessRendererTests, MeasuresTheResultItself) {
    const auto piece = render({"well"});

    ASSERT_TRUE(piece.quality && piece.quality->loudness);
    EXPECT_EQ(piece.quality->loudness->peak, 8000.0 / 32768);
    EXPECT_EQ(piece.quality->loudness->seconds, 0.5);
    // A sine of this peak on both channels, a little less for the low frequency's weight.
    EXPECT_NEAR(piece.quality->loudness->integratedLUFS.value(), -12.6, 0.6);
}

TEST_F(ProcessRendererTests, WhatTheEngineDoesNotSayIsAbsentOrZero) {
    const auto piece = render({"well"});

    EXPECT_FALSE(piece.seamDB);
    EXPECT_FALSE(piece.leadIn);
    EXPECT_FALSE(piece.origin);
    EXPECT_EQ(piece.quality->brightness, 0);
    EXPECT_EQ(piece.quality->makeupDB, 0);
}

TEST_F(ProcessRendererTests, TheQueueStoresWhatItRenders) {
    store->add(render({"well"}));

    EXPECT_TRUE(store->contains(identity));
    EXPECT_EQ(store->lastSaveError(), std::nullopt);
}

TEST_F(ProcessRendererTests, ReportsPreparingFirstThenTheEnginesStagesAndProcessingLast) {
    options.reportInterval = std::chrono::milliseconds(0);

    render({"says", "text encoder", "progress sampling 3/50 2/8 running"});

    ASSERT_GE(stages.size(), 3U);
    EXPECT_EQ(stages.front(), GenerationStage(GenerationStage::Preparing{}));
    EXPECT_EQ(stages[stages.size() - 2], *GenerationStage::fromEngineLine("progress sampling 3/50 2/8 running"));
    EXPECT_EQ(stages.back(), GenerationStage(GenerationStage::Processing{}));
}

TEST_F(ProcessRendererTests, ReportsPartialAudioWithItsRealLengthAndLoudness) {
    options.reportInterval = std::chrono::milliseconds(0);
    const VisibleProcesses fifo(folder);
    std::ofstream go(fifo.fifo());
    std::vector<bool> wasThere;
    onAudio = [&](const GenerationAudio& report) {
        wasThere.push_back(std::filesystem::exists(report.url.path()));
        EXPECT_TRUE(report.url.path().parent_path().filename().string().starts_with("Render-"));
        go << "x" << std::flush;  // the engine waits for it after each part
    };

    const auto piece = render({"whole", fifo.fifo()});

    ASSERT_EQ(audio.size(), 4U);
    for (std::size_t index = 0; index < audio.size(); ++index) {
        EXPECT_EQ(audio[index].seconds, 0.125 * static_cast<double>(index + 1));
        EXPECT_EQ(audio[index].loudness->seconds, audio[index].seconds);
        EXPECT_TRUE(wasThere[index]);
    }
    // Measured piece by piece, it is the same in the end.
    EXPECT_EQ(audio.back().loudness, piece.quality->loudness);
}

TEST_F(ProcessRendererTests, APartialReportSaysWhatIsReallyThere) {
    render({"names-partial", "audio.wav"});  // says one second
    render({"says", R"(audio {"file":"none.wav","seconds":0.25})"});

    for (const auto& report : audio) EXPECT_EQ(report.seconds, 0.5);
}

TEST_F(ProcessRendererTests, TheShorterFormsRenderTheSame) {
    const auto with = renderer({"whole"});
    int partials = 0, reports = 0;
    double last = 0;
    const GenerationService::PartialHandler onPartial = [&](const FileURL&, double length) {
        ++partials;
        last = length;
    };
    const GenerationService::StageHandler onStages = [&](const GenerationStage&) { ++reports; };

    EXPECT_EQ(with->render(identity, 0.5, onPartial, {}).seconds, 0.5);
    EXPECT_GE(partials, 1);
    EXPECT_EQ(last, 0.5);
    identity.seed = 8;
    EXPECT_EQ(with->render(identity, 0.5, onPartial, onStages, {}).seconds, 0.5);
    EXPECT_GE(reports, 3);
    identity.seed = 9;
    EXPECT_EQ(with->render(identity, 0.5, GenerationPace::background, onPartial, onStages, {}).seconds, 0.5);
    identity.seed = 10;
    EXPECT_EQ(with->render(identity, 0.5, GenerationService::PartialHandler(), {}).seconds, 0.5);
}

TEST_F(ProcessRendererTests, RendersThroughTheRegistry) {
    GenerationBackends backends;
    backends.registerService(renderer({"well"}), GenerationEngine::mlx);

    const auto piece = backends.render(identity, 0.5, GenerationPace::fast, GenerationService::AudioHandler(),
                                       [](const GenerationStage&) {}, {});

    EXPECT_EQ(piece.engineBuild, backends.engineBuild(identity));
}

TEST_F(ProcessRendererTests, TheEngineIsToldEverythingItNeeds) {
    identity.audio = std::nullopt;
    identity.prompt = "a \"quoted\" prompt\nof two lines";
    seconds = 0.25;
    pace = GenerationPace::background;
    options.burst = std::chrono::minutes(1);

    render({"record", (folder.path() / "request").string()});

    std::istringstream recorded(folder.content("request"));
    std::string line, current;
    std::getline(recorded, line);
    std::getline(recorded, current);
    const auto request = nlohmann::json::parse(line);
    EXPECT_EQ(request.at("protocol"), 1);
    EXPECT_EQ(request.at("request"), "render");
    EXPECT_EQ(request.at("identity").at("moodID"), "designflow");
    EXPECT_EQ(request.at("identity").at("blend").at("index"), 2);
    EXPECT_EQ(request.at("identity").at("prompt"), *identity.prompt);
    EXPECT_EQ(request.at("identity").at("seed"), 7);
    EXPECT_EQ(request.at("seconds"), 0.25);
    EXPECT_EQ(request.at("frames"), 12000);
    EXPECT_EQ(request.at("sampleRate"), 48000);
    EXPECT_EQ(request.at("channels"), 2);
    EXPECT_EQ(request.at("bitsPerSample"), 16);
    EXPECT_EQ(request.at("pace"), "background");
    EXPECT_EQ(request.at("dutyCycle"), 0.25);
    EXPECT_EQ(request.at("file"), "audio.wav");
    EXPECT_EQ(request.at("folder"), current);
    const std::filesystem::path place = current;
    EXPECT_EQ(place.parent_path(), std::filesystem::canonical(loops));
    EXPECT_TRUE(UUID::fromText(place.filename().string().substr(std::string_view("Render-").size())));
}

TEST_F(ProcessRendererTests, LengthsAreRoundedToWholeFrames) {
    seconds = 0.10001;

    const auto piece = render({"well"});

    EXPECT_EQ(piece.seconds, 4800.0 / 48000);
}

TEST_F(ProcessRendererTests, TheWorkingFolderIsLockedWhileTheRenderRuns) {
    bool isHeld = false;
    onStage = [&](const GenerationStage&) {
        for (const auto& name : library()) {
            if (name.starts_with("Render-")) isHeld = FolderLock::isHeld(loops / name / ".lock");
        }
    };

    render({"says", "decoder"});

    EXPECT_TRUE(isHeld);
}

TEST_F(ProcessRendererTests, TheEngineStandsAlone) {
    // What this process makes of its signals and descriptors is not the engine's business.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    const auto oldHandler = ::signal(SIGPIPE, SIG_IGN);
    const int inheritable = ::dup(STDERR_FILENO);

    const auto failure = failureOf({"self"});

    ::close(inheritable);
    ::signal(SIGPIPE, oldHandler);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(failure.reason(), EngineFailure::Reason::exitStatus);
    EXPECT_THAT(failure.what(), HasSubstr("blocked nothing ignored nothing open 0 1 2 temporary"));
    EXPECT_THAT(failure.what(), HasSubstr("group own"));
}

TEST_F(ProcessRendererTests, ThePaceSetsThePriority) {
    struct Row {
        GenerationPace pace;
        int niceness;
    };
    for (const auto& row :
         {Row{GenerationPace::fast, 0}, Row{GenerationPace::background, 10}, Row{GenerationPace::gentle, 19}}) {
        SCOPED_TRACE(rawValue(row.pace));
        pace = row.pace;
        const int mine = ::nice(0);

        const auto failure = failureOf({"self"});

        EXPECT_THAT(failure.what(), HasSubstr("nice " + std::to_string(std::max(mine, row.niceness)) + " "));
    }
}

TEST_F(ProcessRendererTests, AnEngineThatNeverRestsIsStoppedForItsShareOfTheTime) {
    pace = GenerationPace::gentle;
    options.burst = std::chrono::milliseconds(0);
    const auto pidFile = folder.path() / "pid";
    std::jthread rendering([&] { EXPECT_THROW(render({"works", "1000000000", pidFile.string()}), CancellationError); });

    int engine = 0;
    while (engine == 0) std::ifstream(pidFile) >> engine;
    while (stateOf(engine) != 'T') std::this_thread::yield();
    stop.request_stop();  // a stopped engine can be ended too
}

TEST_F(ProcessRendererTests, TimesThatAreNoneCountAsADayOrAsNothing) {
    using std::chrono::milliseconds;
    for (const auto slow : {GenerationPace::fast, GenerationPace::gentle}) {
        for (const auto longest : {milliseconds::max(), milliseconds(std::chrono::hours(25))}) {
            pace = slow;
            options.grace = options.silenceLimit = options.lingerLimit = options.buildLimit = longest;
            options.burst = longest;
            EXPECT_EQ(render({"well"}).engineBuild, "test-engine 1");
            identity.seed++;
        }
    }
    options.grace = options.burst = options.reportInterval = milliseconds::min();
    EXPECT_EQ(render({"says", "decoder"}).seconds, 0.5);
    options.reportInterval = milliseconds::max();
    identity.seed++;
    EXPECT_EQ(render({"says", "decoder"}).seconds, 0.5);
}

TEST_F(ProcessRendererTests, AStoppedEngineGoesOnAndFinishes) {
    pace = GenerationPace::background;
    options.burst = std::chrono::milliseconds(0);

    EXPECT_EQ(render({"works", "600", (folder.path() / "pid").string()}).seconds, 0.5);
}

TEST_F(ProcessRendererTests, TwoRendersMayRunAtOnce) {
    const auto with = renderer({"says", "decoder"});
    std::latch both(2);
    std::vector<std::jthread> threads;
    for (const int seed : {1, 2}) {
        threads.emplace_back([&, seed] {
            auto own = identity;
            own.seed = seed;
            bool hasMet = false;
            const auto meet = [&](const GenerationStage& stage) {
                if (stage != *GenerationStage::fromEngineLine("decoder") || std::exchange(hasMet, true)) return;
                both.arrive_and_wait();  // only two renders at once get past it
            };
            with->render(own, 0.5, GenerationPace::fast, GenerationService::AudioHandler(), meet, {});
        });
    }
    threads.clear();

    EXPECT_EQ(library().size(), 2U);
}

// The build of the engine.

struct EngineBuildTests : ProcessRendererTests {
    std::filesystem::path questions = folder.path() / "questions";
    std::vector<std::string> answering(const std::string& how) const { return {"build", questions.string(), how}; }
};

TEST_F(EngineBuildTests, IsAskedForOncePerModel) {
    const auto with = renderer(answering(R"(result {"engineBuild":"sound 3"})"));

    EXPECT_EQ(with->engineBuild(identity), "sound 3");
    identity.seed = 8;
    EXPECT_EQ(with->engineBuild(identity), "sound 3");
    identity.model = "sa3_small-music_mlx_v2";
    EXPECT_EQ(with->engineBuild(identity), "sound 3");
    EXPECT_EQ(render(*with).engineBuild, "sound 3");

    EXPECT_EQ(folder.content("questions"), "sa3_medium_mlx_v2\nsa3_small-music_mlx_v2\n");
}

TEST_F(EngineBuildTests, IsAbsentForAnEngineThatFailsAndAskedForAgain) {
    const auto with = renderer(answering("fails"));

    EXPECT_EQ(with->engineBuild(identity), std::nullopt);
    EXPECT_EQ(with->engineBuild(identity), std::nullopt);

    EXPECT_EQ(folder.content("questions"), "sa3_medium_mlx_v2\nsa3_medium_mlx_v2\n");
    EXPECT_EQ(render(*with).engineBuild, std::nullopt);
}

TEST_F(EngineBuildTests, IsAbsentForAnAnswerThatIsNone) {
    for (const std::string answer :
         {"sound 3", "result {}", R"(result {"engineBuild":""})", R"(result {"engineBuild":3})",
          R"(result {"engineBuild":"two\nlines"})", "result {\"engineBuild\":\"\xFF\"}", "result {"}) {
        SCOPED_TRACE(answer);

        EXPECT_EQ(renderer(answering(answer))->engineBuild(identity), std::nullopt);
    }
}

TEST_F(EngineBuildTests, IsAbsentForAnEngineThatTakesTooLong) {
    options.buildLimit = std::chrono::milliseconds(50);

    EXPECT_EQ(renderer(answering("hangs"))->engineBuild(identity), std::nullopt);
}

TEST_F(EngineBuildTests, IsAbsentForACommandThatIsNone) {
    EXPECT_EQ(ProcessRenderer({"/nonexistent/engine"}, store, options).engineBuild(identity), std::nullopt);
}

TEST_F(EngineBuildTests, IsAskedForOnceByManyThreads) {
    const auto with = renderer(answering(R"(result {"engineBuild":"sound 3"})"));
    std::vector<std::jthread> threads;
    for (int index = 0; index < 8; ++index) {
        threads.emplace_back([&] { EXPECT_EQ(with->engineBuild(identity), "sound 3"); });
    }
    threads.clear();

    EXPECT_EQ(folder.content("questions"), "sa3_medium_mlx_v2\n");
}

TEST_F(EngineBuildTests, IsAnsweredWhileARenderRuns) {
    const auto with = renderer({"says", "decoder"});
    std::optional<std::string> answer;
    auto other = identity;
    other.model = "sa3_small-music_mlx_v2";
    onStage = [&](const GenerationStage& stage) {
        if (stage == *GenerationStage::fromEngineLine("decoder")) answer = with->engineBuild(other);
    };

    render(*with);

    EXPECT_EQ(answer, "test-engine 1");
}

TEST_F(EngineBuildTests, ACancelledRenderDoesNotWaitForTheAnswer) {
    const auto with = renderer(answering("hangs"));
    std::jthread rendering([&] { EXPECT_THROW(render(*with), CancellationError); });

    while (!std::filesystem::exists(questions)) std::this_thread::yield();
    stop.request_stop();
}

}  // namespace
}  // namespace quillmere::test
