#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "QuillmereKit/Generation/GenerationStage.hpp"
#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Renderers/Tonebed/Engine.hpp"
#include "Tests/Renderers/TonebedPieces.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::tonebed {
namespace {

using nlohmann::json;
using Duration = EngineHost::Duration;
using std::chrono::milliseconds;
using std::chrono::seconds;

const AudioFormat wantedFormat{
    .codec = AudioFormat::Codec::linearPCM, .bitsPerChannel = 16, .sampleRate = 48000, .channels = 2};

LoopIdentity anIdentity() { return test::playableMoods().at(3).identity(BlendStep(1), 7, "sa3_medium_mlx_v2").value(); }

json renderRequest(const std::string& folder) {
    return {{"protocol", 1},
            {"request", "render"},
            {"identity", json::parse(encodeJSON(anIdentity(), JSONWriter::Form::compact))},
            {"seconds", 11},
            {"frames", 528000},
            {"sampleRate", 48000},
            {"channels", 2},
            {"bitsPerSample", 16},
            {"pace", "fast"},
            {"dutyCycle", 1},
            {"folder", folder},
            {"file", "audio.wav"}};
}

std::string complaintAbout(const json& request) {
    try {
        (void)EngineRequest::parse(request.dump());
    } catch (const RequestError& error) {
        return error.what();
    }
    return "";
}

/// A host with a clock of its own: each look at it costs a little, each wait exactly its time.
class FakeHost final : public EngineHost {
public:
    Duration now() override { return time_ += milliseconds(100); }
    bool wait(Duration duration) override {
        time_ += duration;
        rested_ += duration;
        longestRest_ = std::max(longestRest_, duration);
        return shallStop && shallStop(duration);
    }
    void say(std::string_view line) override {
        lines.emplace_back(line);
        if (onLine) onLine(lines.back());
    }

    [[nodiscard]] Duration total() const { return time_; }
    [[nodiscard]] Duration rested() const { return rested_; }
    [[nodiscard]] Duration longestRest() const { return longestRest_; }

    std::vector<std::string> lines;
    std::function<bool(Duration)> shallStop;
    std::function<void(const std::string&)> onLine;

private:
    Duration time_{};
    Duration rested_{};
    Duration longestRest_{};
};

struct TonebedEngineTests : testing::Test {
    test::TemporaryFolder folder;
    FakeHost host;

    EngineRequest request(double dutyCycle = 1) const {
        auto value = renderRequest(folder.path());
        value["dutyCycle"] = dutyCycle;
        return EngineRequest::parse(value.dump());
    }
};

TEST_F(TonebedEngineTests, ARequestIsReadWithAllThatDecidesTheSound) {
    const EngineRequest read = request(0.25);

    EXPECT_EQ(read.kind, EngineRequest::Kind::render);
    EXPECT_EQ(read.piece.moodID, "designflow");
    EXPECT_EQ(read.piece.calmPrompt, anIdentity().calmPrompt);
    EXPECT_EQ(read.piece.energeticPrompt, anIdentity().energeticPrompt);
    EXPECT_FALSE(read.piece.prompt);
    EXPECT_EQ(read.piece.blendIndex, 1);
    EXPECT_EQ(read.piece.seed, 7);
    EXPECT_EQ(read.piece.frames, 528000);
    EXPECT_EQ(read.dutyCycle, 0.25);
    EXPECT_EQ(read.folder, folder.path());
    EXPECT_EQ(read.file, "audio.wav");
}

TEST_F(TonebedEngineTests, ACompletePromptIsPassedOn) {
    auto value = renderRequest(folder.path());
    value["identity"]["prompt"] = "solo piano";

    EXPECT_EQ(EngineRequest::parse(value.dump()).piece.prompt, "solo piano");
}

TEST_F(TonebedEngineTests, GuideAudioIsRefusedClearly) {
    auto value = renderRequest(folder.path());
    SoundGuide guide{.format = std::string(SoundGuide::currentFormat),
                     .assetID = std::string(64, 'a'),
                     .storageID = "my-a",
                     .sampleCount = 441000,
                     .latentCount = 107,
                     .sourceName = "song"};
    value["identity"]["audio"] = json::parse(encodeJSON(AudioUse{.guide = guide}, JSONWriter::Form::compact));

    EXPECT_EQ(complaintAbout(value), "Tonebed cannot use guide audio.");
}

TEST_F(TonebedEngineTests, LengthsThatCannotBeMadeAreRefused) {
    struct Row {
        json length;
        json frames;
    };
    const std::vector<Row> rows = {{0, 0},         {-1, -48000},    {0.01, 480}, {121, 5808000}, {120.001, 5760048},
                                   {1e300, 48000}, {-1e300, 48000}, {1, 0}};
    for (const auto& row : rows) {
        auto value = renderRequest(folder.path());
        value["seconds"] = row.length;
        value["frames"] = row.frames;
        EXPECT_EQ(complaintAbout(value), "Tonebed makes pieces of 0.1 to 120 seconds.") << value.dump();
    }
    auto value = renderRequest(folder.path());
    value["seconds"] = 12;
    EXPECT_EQ(complaintAbout(value), "The seconds and frames of the request differ.");
    value["seconds"] = 120;
    value["frames"] = 5760000;
    EXPECT_EQ(complaintAbout(value), "");
}

TEST_F(TonebedEngineTests, LengthsThatAreNoNumbersAreRefused) {
    const std::string good = renderRequest(folder.path()).dump();
    for (const char* length : {"NaN", "Infinity", "1e999", "\"11\"", "true", "null", "[]"}) {
        std::string text = good;
        text.replace(text.find("\"seconds\":11"), 12, std::string("\"seconds\":") + length);
        try {
            (void)EngineRequest::parse(text);
            ADD_FAILURE() << length;
        } catch (const RequestError& error) {
            EXPECT_TRUE(std::string(error.what()).starts_with("The request cannot be read: ")) << error.what();
        }
    }
}

TEST_F(TonebedEngineTests, WhatMakesNoSenseIsRefusedWithAReason) {
    struct Row {
        const char* key;
        json value;
        const char* complaint;
    };
    const Row rows[] = {
        {"protocol", 2, "Tonebed speaks protocol 1, not 2."},
        {"request", "sing", "Tonebed does not know the request \"sing\"."},
        {"sampleRate", 44100, "Tonebed makes 48,000 frames a second, no others."},
        {"channels", 1, "Tonebed makes two channels, no others."},
        {"bitsPerSample", 24, "Tonebed makes samples of 16 bits, no others."},
        {"dutyCycle", 0, "The duty cycle must be above 0 and at most 1."},
        {"dutyCycle", -0.5, "The duty cycle must be above 0 and at most 1."},
        {"dutyCycle", 1.01, "The duty cycle must be above 0 and at most 1."},
        {"folder", "here", "The folder must be an absolute path."},
        {"file", "", "The file must be a plain name."},
        {"file", "..", "The file must be a plain name."},
        {"file", ".", "The file must be a plain name."},
        {"file", "../audio.wav", "The file must be a plain name."},
        {"file", "/tmp/audio.wav", "The file must be a plain name."},
        {"file", std::string("a\0b", 3), "The file must be a plain name."},
    };
    for (const Row& row : rows) {
        auto value = renderRequest(folder.path());
        value[row.key] = row.value;
        EXPECT_EQ(complaintAbout(value), row.complaint) << row.key << " " << row.value.dump();
    }
}

TEST_F(TonebedEngineTests, WhatIsMissingOrNoJSONIsNamed) {
    for (const char* key : {"protocol", "request", "identity", "seconds", "frames", "sampleRate", "channels",
                            "bitsPerSample", "folder", "file"}) {
        auto value = renderRequest(folder.path());
        value.erase(key);
        EXPECT_NE(complaintAbout(value).find(key), std::string::npos) << key;
    }
    for (const char* text : {"", "{", "[]", "null", "render", "{\"protocol\":1}", "\xff\xfe"}) {
        EXPECT_THROW((void)EngineRequest::parse(text), RequestError) << text;
    }
    auto value = renderRequest(folder.path());
    value.erase("dutyCycle");
    EXPECT_EQ(complaintAbout(value), "");
}

TEST_F(TonebedEngineTests, TheBuildIsAnswered) {
    const auto build = EngineRequest::parse(R"({"protocol":1,"request":"build","identity":{}})");

    EXPECT_EQ(run(build, host), EngineResult::done);
    EXPECT_EQ(host.lines, std::vector<std::string>{R"(result {"engineBuild":"tonebed-1"})"});
}

TEST_F(TonebedEngineTests, EveryLineIsAStageOrAudioAndTheResultComesLast) {
    ASSERT_EQ(run(request(), host), EngineResult::done);

    std::vector<GenerationStage> stages;
    for (std::size_t i = 0; i + 1 < host.lines.size(); ++i) {
        const std::string& line = host.lines[i];
        if (line.starts_with("audio {")) continue;
        const auto stage = GenerationStage::fromEngineLine(line);
        ASSERT_TRUE(stage) << line;
        stages.push_back(*stage);
    }
    EXPECT_EQ(stages.front(), GenerationStage(GenerationStage::Encoding{}));
    EXPECT_EQ(std::ranges::count(stages, GenerationStage(GenerationStage::Decoding{})), 1);
    EXPECT_TRUE(host.lines[1].starts_with("progress sampling 1/"));

    const json result = json::parse(host.lines.back().substr(7));
    EXPECT_TRUE(host.lines.back().starts_with("result {"));
    EXPECT_EQ(result.at("file"), "audio.wav");
    EXPECT_EQ(result.at("seconds"), 11.0);
    EXPECT_LT(result.at("seamDB").get<double>(), -10);
    EXPECT_GE(result.at("seamDB").get<double>(), -96.4);
    EXPECT_GT(result.at("brightness").get<double>(), 0);
    EXPECT_LE(result.at("brightness").get<double>(), 1);
    EXPECT_TRUE(result.at("makeupDB").is_number());
    EXPECT_EQ(result.at("leadIn"), 0);
}

TEST_F(TonebedEngineTests, StagesOnlyGoForward) {
    ASSERT_EQ(run(request(0.5), host), EngineResult::done);

    std::int64_t step = 0;
    std::int64_t window = 0;
    for (const std::string& line : host.lines) {
        const auto stage = GenerationStage::fromEngineLine(line);
        if (!stage) continue;
        if (const auto* sampling = std::get_if<GenerationStage::SamplingBlock>(&stage->value())) {
            EXPECT_GE(sampling->step * 100 + sampling->block, step);
            EXPECT_EQ(window, 0);
            step = sampling->step * 100 + sampling->block;
        }
        if (const auto* decoding = std::get_if<GenerationStage::DecodingBlock>(&stage->value())) {
            EXPECT_GE(decoding->window, window);
            window = decoding->window;
        }
    }
    EXPECT_EQ(window, 3);
}

TEST_F(TonebedEngineTests, PartialAudioIsAWholeFileThatGrowsByFiveSecondsWhileThePieceIsBeingMade) {
    std::vector<double> lengths;
    std::vector<std::vector<std::int16_t>> parts;
    host.onLine = [&](const std::string& line) {
        if (!line.starts_with("audio ")) return;
        const json audio = json::parse(line.substr(6));
        lengths.push_back(audio.at("seconds"));
        WAVFile file(folder.path() / audio.at("file").get<std::string>());
        EXPECT_EQ(file.format(), wantedFormat);
        std::vector<std::int16_t> samples(static_cast<std::size_t>(2 * file.frames()));
        EXPECT_EQ(file.read(samples), static_cast<std::size_t>(file.frames()));
        EXPECT_EQ(static_cast<double>(file.frames()) / 48000, lengths.back());
        parts.push_back(samples);
    };
    ASSERT_EQ(run(request(), host), EngineResult::done);

    EXPECT_EQ(lengths, (std::vector<double>{5, 10, 11}));
    const auto decoder = std::ranges::find(host.lines, "decoder");
    EXPECT_EQ(std::find_if(decoder, host.lines.end(), [](const auto& line) { return line.starts_with("audio "); }),
              host.lines.end());
    // Between two parts there is work to be seen: they do not come all at once.
    const auto first = std::ranges::find(host.lines, R"(audio {"file":"partial.wav","seconds":5})");
    const auto second = std::ranges::find(host.lines, R"(audio {"file":"partial.wav","seconds":10})");
    EXPECT_GE(std::count_if(first, second, [](const auto& line) { return line.starts_with("progress sampling"); }), 3);
    for (const auto& part : parts) EXPECT_TRUE(std::equal(part.begin(), part.end(), parts.back().begin()));
}

TEST_F(TonebedEngineTests, PartialAudioIsThePieceAtNearlyItsLevel) {
    ASSERT_EQ(run(request(), host), EngineResult::done);

    const auto samplesOf = [&](const char* name) {
        WAVFile file(folder.path() / name);
        std::vector<std::int16_t> samples(static_cast<std::size_t>(2 * file.frames()));
        EXPECT_EQ(file.read(samples), static_cast<std::size_t>(file.frames()));
        return samples;
    };
    const auto piece = samplesOf("audio.wav");
    const auto partial = samplesOf("partial.wav");
    ASSERT_EQ(partial.size(), piece.size());
    double both = 0;
    double ofPiece = 0;
    double ofPartial = 0;
    for (std::size_t i = 0; i < piece.size(); ++i) {
        both += static_cast<double>(piece[i]) * partial[i];
        ofPiece += static_cast<double>(piece[i]) * piece[i];
        ofPartial += static_cast<double>(partial[i]) * partial[i];
    }
    EXPECT_GT(both / std::sqrt(ofPiece * ofPartial), 0.99);
    EXPECT_NEAR(10 * std::log10(ofPartial / ofPiece), 0, 1.5) << "decibels";
}

TEST_F(TonebedEngineTests, TheResultIsTheWholePieceToTheByte) {
    ASSERT_EQ(run(request(), host), EngineResult::done);

    WAVFile file(folder.path() / "audio.wav");
    EXPECT_EQ(file.format(), wantedFormat);
    ASSERT_EQ(file.frames(), 528000);
    std::vector<std::int16_t> whole(2 * 528000);
    EXPECT_EQ(file.read(whole), 528000U);
    EXPECT_EQ(whole, test::Rendering(request().piece).samples);
}

TEST_F(TonebedEngineTests, AResultThatIsNamedLikeThePartialAudioIsAFileOfItsOwn) {
    auto asked = request();
    asked.file = "partial.wav";
    ASSERT_EQ(run(asked, host), EngineResult::done);

    EXPECT_EQ(folder.names(), (std::vector<std::string>{"partial-audio.wav", "partial.wav"}));
    EXPECT_EQ(std::ranges::count(host.lines, R"(audio {"file":"partial-audio.wav","seconds":5})"), 1);
    EXPECT_TRUE(host.lines.back().starts_with(R"(result {"file":"partial.wav",)"));
}

TEST_F(TonebedEngineTests, AtFullDutyThereIsNoRest) {
    ASSERT_EQ(run(request(1), host), EngineResult::done);

    EXPECT_EQ(host.rested(), Duration(0));
    for (const std::string& line : host.lines) EXPECT_EQ(line.find("waiting"), std::string::npos);
}

TEST_F(TonebedEngineTests, RestsBringWorkToItsShareAndAreAnnouncedInWholeSeconds) {
    for (const double dutyCycle : {0.1, 0.25, 0.7}) {
        const test::TemporaryFolder place;
        FakeHost clock;
        std::vector<std::int64_t> announced;
        clock.onLine = [&](const std::string& line) {
            if (const auto at = line.find("waiting "); at != std::string::npos) {
                announced.push_back(std::stoll(line.substr(at + 8)));
                EXPECT_TRUE(GenerationStage::fromEngineLine(line)) << line;
            }
        };
        auto asked = request(dutyCycle);
        asked.folder = place.path();
        ASSERT_EQ(run(asked, clock), EngineResult::done);

        // The clock's first reading and those after rests are not work.
        const auto tolerance = seconds(1) + milliseconds(100) * static_cast<std::int64_t>(announced.size());
        const std::chrono::duration<double> wished = clock.total() * (1 - dutyCycle);
        EXPECT_NEAR(std::chrono::duration<double>(clock.rested()).count(), wished.count(),
                    std::chrono::duration<double>(tolerance).count() * (1 - dutyCycle));
        EXPECT_FALSE(announced.empty());
        for (const std::int64_t rest : announced) {
            EXPECT_GE(rest, 1);
            EXPECT_LE(rest, 5);
        }
        EXPECT_LE(clock.longestRest(), seconds(5));
    }
}

TEST_F(TonebedEngineTests, AStopWhileWorkingEndsItAndLeavesTheFileWhereItIs) {
    int looks = 0;
    host.shallStop = [&](Duration) { return ++looks == 3; };

    EXPECT_EQ(run(request(), host), EngineResult::stopped);
    EXPECT_EQ(looks, 3);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"audio.wav"});
    for (const std::string& line : host.lines) EXPECT_FALSE(line.starts_with("result"));
}

TEST_F(TonebedEngineTests, AStopWhileRestingEndsIt) {
    host.shallStop = [](Duration duration) { return duration > Duration::zero(); };

    EXPECT_EQ(run(request(0.1), host), EngineResult::stopped);
    EXPECT_NE(host.lines.back().find("waiting"), std::string::npos);
}

TEST_F(TonebedEngineTests, AFileThatIsThereIsNeverWrittenOver) {
    folder.putFile("audio.wav", "mine");

    EXPECT_THROW((void)run(request(), host), FileError);
    EXPECT_EQ(folder.content("audio.wav"), "mine");
}

TEST_F(TonebedEngineTests, AFolderThatIsNotThereIsAnError) {
    auto asked = request();
    asked.folder = folder.path() / "gone";

    EXPECT_THROW((void)run(asked, host), FileError);
}

}  // namespace
}  // namespace quillmere::tonebed
