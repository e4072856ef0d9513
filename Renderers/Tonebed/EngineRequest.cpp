#include "Renderers/Tonebed/EngineRequest.hpp"

#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "Renderers/Tonebed/Arithmetic.hpp"

namespace quillmere::tonebed {
namespace {

constexpr std::int64_t protocol = 1;

void require(bool holds, const char* complaint) {
    if (!holds) throw RequestError(complaint);
}

/// {"protocol": 1, "request": "render", "identity": LoopIdentity, "seconds": number, "frames": integer,
///  "sampleRate": 48000, "channels": 2, "bitsPerSample": 16, "dutyCycle": number, "folder": string, "file": string}
EngineRequest readRender(const JSONValue& root) {
    EngineRequest request;
    request.kind = EngineRequest::Kind::render;
    const auto identity = root.member<LoopIdentity>("identity");
    require(!identity.audio, "Tonebed cannot use guide audio.");
    require(root.member<std::int64_t>("sampleRate") == sampleRate, "Tonebed makes 48,000 frames a second, no others.");
    require(root.member<std::int64_t>("channels") == 2, "Tonebed makes two channels, no others.");
    require(root.member<std::int64_t>("bitsPerSample") == 16, "Tonebed makes samples of 16 bits, no others.");

    const auto seconds = root.member<double>("seconds");
    const auto frames = root.member<std::int64_t>("frames");
    constexpr auto rate = static_cast<double>(sampleRate);
    const bool isPossible =
        seconds > 0 && seconds <= mostFrames / rate && frames >= fewestFrames && frames <= mostFrames;
    require(isPossible, "Tonebed makes pieces of 0.1 to 120 seconds.");
    // Whoever asks may round either way.
    require(std::abs(seconds * rate - static_cast<double>(frames)) <= 1.0,
            "The seconds and frames of the request differ.");

    request.dutyCycle = root.optionalMember<double>("dutyCycle").value_or(1);
    require(request.dutyCycle > 0 && request.dutyCycle <= 1, "The duty cycle must be above 0 and at most 1.");
    request.folder = root.member<std::string>("folder");
    request.file = root.member<std::string>("file");
    require(request.folder.is_absolute(), "The folder must be an absolute path.");
    const bool isName = !request.file.empty() && request.file != "." && request.file != ".." &&
                        request.file.find('/') == std::string::npos && request.file.find('\0') == std::string::npos;
    require(isName, "The file must be a plain name.");

    request.piece = {.moodID = identity.moodID,
                     .calmPrompt = identity.calmPrompt,
                     .energeticPrompt = identity.energeticPrompt,
                     .prompt = identity.prompt,
                     .blendIndex = identity.blend.index(),
                     .seed = identity.seed,
                     .frames = frames};
    return request;
}

}  // namespace

EngineRequest EngineRequest::parse(std::string_view line) {
    try {
        const JSONDocument document = JSONDocument::parse(line);
        const JSONValue root = document.root();
        const auto version = root.member<std::int64_t>("protocol");
        if (version != protocol) {
            throw RequestError("Tonebed speaks protocol 1, not " + std::to_string(version) + ".");
        }
        const auto kind = root.member<std::string>("request");
        if (kind == "build") return {};
        if (kind == "render") return readRender(root);
        throw RequestError("Tonebed does not know the request \"" + kind.substr(0, 80) + "\".");
    } catch (const JSONError& error) {
        throw RequestError(std::string("The request cannot be read: ") + error.what());
    }
}

}  // namespace quillmere::tonebed
