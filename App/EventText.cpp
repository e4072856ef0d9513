#include "App/EventText.hpp"

#include "App/Output.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::app {
namespace {

template <class... Functions>
struct Overloaded : Functions... {
    using Functions::operator()...;
};
template <class... Functions>
Overloaded(Functions...) -> Overloaded<Functions...>;

double share(std::int64_t part, std::int64_t whole) {
    return whole > 0 ? static_cast<double>(part) / static_cast<double>(whole) : 0.0;
}

// Steps run through once a block.
double share(std::int64_t step, std::int64_t steps, std::int64_t block, std::int64_t blocks) {
    return blocks > 0 ? (static_cast<double>(block - 1) + share(step, steps)) / static_cast<double>(blocks) : 0.0;
}

// Where sampling ends and decoding begins on the bar.
constexpr double samplingEnd = 0.6;

}  // namespace

double progressFraction(const GenerationStage& stage) {
    using Stage = GenerationStage;
    return std::visit(
        Overloaded{
            [](const Stage::Sampling& s) { return samplingEnd * share(s.step, s.total); },
            [](const Stage::SamplingBlock& s) { return samplingEnd * share(s.step, s.total, s.block, s.blocks); },
            [](const Stage::DecodingBlock& s) {
                return samplingEnd + (0.97 - samplingEnd) * share(s.window, s.windows, s.block, s.blocks);
            },
            [](const Stage::Decoding&) { return samplingEnd; },
            [](const Stage::Processing&) { return 0.98; },
            [](const auto&) { return 0.0; },
        },
        stage.value());
}

std::string jsonLine(const GenerationQueue::Event& event) {
    using Progress = GenerationQueue::Progress;
    JSONWriter writer(JSONWriter::Form::compact);
    writer.beginObject();
    writer.key("sequence");
    writer.unsignedInteger(event.sequence);
    if (event.requestToken) writer.member("requestToken", event.requestToken->text());
    std::visit(Overloaded{
                   [&](const Progress::Stage& p) {
                       writer.member("event", "stage");
                       writer.member("fingerprint", p.identity.fingerprint());
                       writer.member("label", p.stage.label());
                       writer.member("progress", progressFraction(p.stage));
                   },
                   [&](const Progress::Rendering& p) {
                       writer.member("event", "rendering");
                       writer.member("fingerprint", p.identity.fingerprint());
                       writer.member("seconds", p.seconds);
                       writer.member("audio", p.audio);
                       writer.member("loudness", p.loudness);
                   },
                   [&](const Progress::Finished& p) {
                       writer.member("event", "finished");
                       writer.member("fingerprint", p.piece.id());
                       writer.member("artifact", p.piece);
                   },
                   [&](const Progress::Failed& p) {
                       writer.member("event", "failed");
                       writer.member("fingerprint", p.identity.fingerprint());
                       writer.member("message", jsonText(p.message));
                   },
                   [&](const Progress::Idle&) { writer.member("event", "idle"); },
                   [&](const Progress::Stopping&) { writer.member("event", "stopping"); },
               },
               event.progress.value());
    writer.endObject();
    return writer.take();
}

}  // namespace quillmere::app
