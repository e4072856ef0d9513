#include "Renderers/EngineProtocol.hpp"

#include <gtest/gtest.h>

#include "QuillmereKit/Platform/Errors.hpp"

namespace quillmere::test {
namespace {

using namespace engineProtocol;

LoopIdentity sampleIdentity() {
    LoopIdentity identity;
    identity.moodID = "rain";
    identity.blend = BlendStep(3);
    identity.calmPrompt = "calm";
    identity.energeticPrompt = "a/b\n";
    identity.seed = -1;
    identity.model = "sa3_medium_mlx_v2";
    return identity;
}

constexpr std::string_view identityText =
    R"({"moodID":"rain","blend":{"index":3},"calmPrompt":"calm","energeticPrompt":"a\/b\n","seed":-1,)"
    R"("model":"sa3_medium_mlx_v2","recipe":1})";

TEST(EngineProtocolTests, ARenderRequestIsOneLine) {
    const RenderRequest request{sampleIdentity(), 120, 5'760'000, GenerationPace::gentle, "/tmp/Render-1"};

    EXPECT_EQ(line(request),
              R"({"protocol":1,"request":"render","identity":)" + std::string(identityText) +
                  R"(,"seconds":120,"frames":5760000,"sampleRate":48000,"channels":2,"bitsPerSample":16,)"
                  R"("pace":"gentle","dutyCycle":0.1,"folder":"\/tmp\/Render-1","file":"audio.wav"})"
                  "\n");
}

TEST(EngineProtocolTests, ABuildQuestionIsOneLine) {
    EXPECT_EQ(buildQuestion(sampleIdentity()),
              R"({"protocol":1,"request":"build","identity":)" + std::string(identityText) + "}\n");
}

TEST(EngineProtocolTests, ARequestThatIsNotUTF8CannotBeWritten) {
    auto identity = sampleIdentity();
    identity.prompt = "\xC0\x80";

    EXPECT_THROW(static_cast<void>(buildQuestion(identity)), EncodingError);
    EXPECT_THROW(static_cast<void>(line({sampleIdentity(), 1, 48000, GenerationPace::fast, "/\xFF"})), EncodingError);
}

TEST(EngineProtocolTests, EveryKindOfLineIsRecognised) {
    const auto stage = report("sample 3/50");
    const auto audio = report(R"(audio {"file":"audio.wav","seconds":5})");
    const auto result = report(R"(result {"file":"audio.wav","seconds":120})");

    ASSERT_TRUE(stage && audio && result);
    EXPECT_EQ(std::get<GenerationStage>(*stage), GenerationStage(GenerationStage::Sampling{3, 50}));
    EXPECT_EQ(std::get<AudioLine>(*audio).json, R"({"file":"audio.wav","seconds":5})");
    EXPECT_EQ(std::get<ResultLine>(*result).json, R"({"file":"audio.wav","seconds":120})");
}

TEST(EngineProtocolTests, TheAudioEncoderIsAStage) {
    EXPECT_EQ(std::get<GenerationStage>(*report("audio encoder")), GenerationStage(GenerationStage::Encoding{}));
}

TEST(EngineProtocolTests, EveryOtherLineIsNothing) {
    for (const std::string_view other :
         {"", "audio", "audio ", "audio 5", "result", "result 5", " audio {}", "AUDIO {}", "audio{}", "audio  {}"}) {
        SCOPED_TRACE(other);

        EXPECT_FALSE(report(other));
    }
}

TEST(EngineProtocolTests, AResultIsReadWhole) {
    const auto result = decodeJSON<Result>(
        R"({"file":"audio.wav","seconds":120,"seamDB":-41.5,"brightness":0.31,"makeupDB":0.8,"leadIn":0})");

    EXPECT_EQ(result.file, "audio.wav");
    EXPECT_EQ(result.seconds, 120);
    EXPECT_EQ(result.seamDB, -41.5);
    EXPECT_EQ(result.quality, (LoopQuality{0.31, 0.8, std::nullopt}));
    EXPECT_EQ(result.leadIn, 0);
}

TEST(EngineProtocolTests, NullIsAbsence) {
    const auto result =
        decodeJSON<Result>(R"({"file":"a","seconds":1,"seamDB":null,"brightness":null,"makeupDB":null,"leadIn":null})");

    EXPECT_FALSE(result.seamDB || result.quality || result.leadIn);
}

TEST(EngineProtocolTests, ABuildIsAShortTextOnOneLine) {
    EXPECT_EQ(decodeJSON<Build>(R"({"engineBuild":"tonebed-1"})").text, "tonebed-1");
    EXPECT_EQ(decodeJSON<Build>(R"({"engineBuild":")" + std::string(200, 'x') + R"("})").text, std::string(200, 'x'));
    EXPECT_THROW(static_cast<void>(decodeJSON<Build>(R"({"engineBuild":")" + std::string(201, 'x') + R"("})")),
                 JSONError);
    EXPECT_THROW(static_cast<void>(decodeJSON<Build>(R"({"engineBuild":"a\u0000"})")), JSONError);
    EXPECT_THROW(static_cast<void>(decodeJSON<Build>(R"({"engineBuild":"a\u007f"})")), JSONError);
}

}  // namespace
}  // namespace quillmere::test
