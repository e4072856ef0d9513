#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <vector>

#include "Benchmarks/Comparison.hpp"
#include "Benchmarks/SampleLibrary.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

// The text of a manifest of 10,000 entries, and RapidJSON's Writer on the same values; both write over what
// they wrote before.

namespace quillmere::benchmarks {
namespace {

constexpr std::size_t count = 10'000;

const std::vector<LoopArtifact>& pieces() {
    static const auto made = [] {
        std::vector<LoopArtifact> artifacts;
        for (std::size_t i = 0; i < count; ++i) artifacts.push_back(samplePiece("/music/Quillmere/Loops", i));
        return artifacts;
    }();
    return made;
}

void ours(benchmark::State& state) {
    JSONWriter writer(JSONWriter::Form::compact);
    encode(writer, pieces());
    for (auto _ : state) {
        writer.clear();
        encode(writer, pieces());
        benchmark::DoNotOptimize(writer.text().data());
    }
}

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void key(Writer& writer, std::string_view text) {
    writer.Key(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void member(Writer& writer, std::string_view name, std::string_view text) {
    key(writer, name);
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void member(Writer& writer, std::string_view name, double value) {
    key(writer, name);
    writer.Double(value);
}

void member(Writer& writer, std::string_view name, std::int64_t value) {
    key(writer, name);
    writer.Int64(value);
}

void write(Writer& writer, const LoopArtifact& piece) {
    const auto& identity = piece.identity;
    const auto& quality = *piece.quality;
    writer.StartObject();
    key(writer, "identity");
    writer.StartObject();
    member(writer, "moodID", identity.moodID);
    member(writer, "blend", identity.blend.index());
    member(writer, "calmPrompt", identity.calmPrompt);
    member(writer, "energeticPrompt", identity.energeticPrompt);
    member(writer, "seed", identity.seed);
    member(writer, "model", identity.model);
    member(writer, "recipe", identity.recipe);
    writer.EndObject();
    member(writer, "url", piece.url.text());
    member(writer, "seconds", piece.seconds);
    member(writer, "seamDB", *piece.seamDB);
    key(writer, "quality");
    writer.StartObject();
    member(writer, "brightness", quality.brightness);
    member(writer, "eventfulness", 0.0);
    member(writer, "makeupDB", quality.makeupDB);
    key(writer, "loudness");
    writer.StartObject();
    member(writer, "integratedLUFS", *quality.loudness->integratedLUFS);
    member(writer, "peak", quality.loudness->peak);
    member(writer, "seconds", *quality.loudness->seconds);
    writer.EndObject();
    writer.EndObject();
    member(writer, "engineBuild", *piece.engineBuild);
    key(writer, "origin");
    writer.StartObject();
    member(writer, "chip", piece.origin->chip);
    writer.EndObject();
    writer.EndObject();
}

void peer(benchmark::State& state) {
    rapidjson::StringBuffer buffer;
    const auto writeAll = [&] {
        Writer writer(buffer);
        writer.StartArray();
        for (const auto& piece : pieces()) write(writer, piece);
        writer.EndArray();
    };
    writeAll();
    for (auto _ : state) {
        buffer.Clear();
        writeAll();
        benchmark::DoNotOptimize(buffer.GetString());
    }
}

[[maybe_unused]] const bool registered = compare("Manifest text, 10,000 entries", ours, peer, benchmark::kMillisecond);

}  // namespace
}  // namespace quillmere::benchmarks

BENCHMARK_MAIN();
