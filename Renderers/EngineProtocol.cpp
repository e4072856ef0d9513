#include "Renderers/EngineProtocol.hpp"

#include <algorithm>

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace engineProtocol {
namespace {

// With the brace: an engine's own chatter may begin with the same word.
constexpr std::string_view audioPrefix = "audio {";
constexpr std::string_view resultPrefix = "result {";

std::string objectOf(std::string_view line, std::string_view prefix) {
    return std::string(line.substr(prefix.size() - 1));
}

void beginRequest(JSONWriter& writer, std::string_view kind, const LoopIdentity& identity) {
    writer.beginObject();
    writer.member("protocol", version);
    writer.member("request", kind);
    writer.member("identity", identity);
}

std::string endRequest(JSONWriter& writer) {
    writer.endObject();
    return writer.take() + "\n";
}

}  // namespace

std::string line(const RenderRequest& request) {
    JSONWriter writer(JSONWriter::Form::compact);
    beginRequest(writer, "render", request.identity);
    writer.member("seconds", request.seconds);
    writer.member("frames", request.frames);
    writer.member("sampleRate", sampleRate);
    writer.member("channels", channels);
    writer.member("bitsPerSample", bitsPerSample);
    writer.member("pace", rawValue(request.pace));
    writer.member("dutyCycle", dutyCycle(request.pace));
    writer.member("folder", request.folder.string());
    writer.member("file", "audio.wav");
    return endRequest(writer);
}

std::string buildQuestion(const LoopIdentity& identity) {
    JSONWriter writer(JSONWriter::Form::compact);
    beginRequest(writer, "build", identity);
    return endRequest(writer);
}

std::optional<Report> report(std::string_view line) {
    if (auto stage = GenerationStage::fromEngineLine(line)) return *std::move(stage);
    if (line.starts_with(audioPrefix)) return AudioLine{objectOf(line, audioPrefix)};
    if (line.starts_with(resultPrefix)) return ResultLine{objectOf(line, resultPrefix)};
    return std::nullopt;
}

}  // namespace engineProtocol

template <>
engineProtocol::PartialAudio decode<engineProtocol::PartialAudio>(const JSONValue& value) {
    engineProtocol::PartialAudio audio{value.member<std::string>("file"), value.member<double>("seconds")};
    if (!(audio.seconds >= 0)) throw JSONError("less than no audio").inMember("seconds");
    return audio;
}

template <>
engineProtocol::Result decode<engineProtocol::Result>(const JSONValue& value) {
    engineProtocol::Result result;
    result.file = value.member<std::string>("file");
    result.seconds = value.member<double>("seconds");
    result.seamDB = value.optionalMember<double>("seamDB");
    const auto brightness = value.optionalMember<double>("brightness");
    const auto makeupDB = value.optionalMember<double>("makeupDB");
    if (brightness && makeupDB) {
        result.quality = LoopQuality{*brightness, *makeupDB, std::nullopt};
    } else if (brightness || makeupDB) {
        throw JSONError("brightness and makeupDB belong together").inMember(brightness ? "makeupDB" : "brightness");
    }
    result.leadIn = value.optionalMember<double>("leadIn");
    if (result.leadIn && !(*result.leadIn >= 0 && *result.leadIn <= result.seconds)) {
        throw JSONError("a lead-in lies within the audio").inMember("leadIn");
    }
    return result;
}

template <>
engineProtocol::Build decode<engineProtocol::Build>(const JSONValue& value) {
    engineProtocol::Build build{value.member<std::string>("engineBuild")};
    constexpr std::size_t longest = 200;
    const auto isControl = [](char character) {
        return static_cast<unsigned char>(character) < 0x20 || character == '\x7F';
    };
    if (build.text.empty() || build.text.size() > longest || std::ranges::any_of(build.text, isControl)) {
        throw JSONError("a build is a short text on one line").inMember("engineBuild");
    }
    return build;
}

}  // namespace quillmere
