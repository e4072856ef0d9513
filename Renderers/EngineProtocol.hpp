#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "QuillmereKit/Generation/GenerationPace.hpp"
#include "QuillmereKit/Generation/GenerationStage.hpp"
#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Library/LoopQuality.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

/// The lines that a renderer and an engine exchange; Documentation/engines.md describes them for people who write
/// engines. Pure computation, thread-safe.
namespace quillmere::engineProtocol {

inline constexpr int version = 1;
inline constexpr int sampleRate = 48'000;
inline constexpr int channels = 2;
inline constexpr int bitsPerSample = 16;

/// One request to render, as it goes to the engine.
struct RenderRequest {
    LoopIdentity identity;
    double seconds = 0;       ///< The length as it was asked for.
    std::int64_t frames = 0;  ///< The length that the file must have.
    GenerationPace pace = GenerationPace::fast;
    std::filesystem::path folder;  ///< The working folder, absolute.
};

/// A request as one line, with its line feed. Throws `EncodingError` if a text in it is not UTF-8.
[[nodiscard]] std::string line(const RenderRequest& request);
/// The question which build of the engine would render this identity.
[[nodiscard]] std::string buildQuestion(const LoopIdentity& identity);

/// A line that announces partial audio, unread.
struct AudioLine {
    std::string json;
};
/// A line that holds the result or the answer to a question, unread.
struct ResultLine {
    std::string json;
};
using Report = std::variant<GenerationStage, AudioLine, ResultLine>;

/// What a line of the engine's standard output reports; nothing for a line that means nothing here.
[[nodiscard]] std::optional<Report> report(std::string_view line);

/// Audio written so far: {"file": string, "seconds": number}
struct PartialAudio {
    std::string file;    ///< A name in the working folder.
    double seconds = 0;  ///< What the engine says of its length, 0 or more.
};

/// A finished render: {"file": string, "seconds": number, "seamDB"?: number, "brightness"?: number,
/// "makeupDB"?: number, "leadIn"?: number}; brightness and makeupDB come together or not at all.
struct Result {
    std::string file;    ///< A name in the working folder.
    double seconds = 0;  ///< What the engine says of its length.
    std::optional<double> seamDB;
    std::optional<LoopQuality> quality;  ///< Without a loudness.
    std::optional<double> leadIn;        ///< 0...`seconds`.
};

/// The answer to a question for the build: {"engineBuild": string}; not empty, at most 200 bytes, no control
/// characters.
struct Build {
    std::string text;
};

}  // namespace quillmere::engineProtocol

namespace quillmere {

template <>
engineProtocol::PartialAudio decode<engineProtocol::PartialAudio>(const JSONValue& value);
template <>
engineProtocol::Result decode<engineProtocol::Result>(const JSONValue& value);
template <>
engineProtocol::Build decode<engineProtocol::Build>(const JSONValue& value);

}  // namespace quillmere
