#include "Renderers/Tonebed/Engine.hpp"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "Renderers/Tonebed/Arithmetic.hpp"
#include "Renderers/Tonebed/Synthesizer.hpp"

namespace quillmere::tonebed {
namespace {

using std::chrono::seconds;
using Duration = EngineHost::Duration;

/// Music between two reports of partial audio, and of one reported step of the work.
constexpr std::int64_t windowFrames = 5 * sampleRate;
constexpr std::int64_t blocksPerStep = 4;
/// Music that is made between two looks at whether to stop: some milliseconds of work.
constexpr std::int64_t partFrames = sampleRate / 4;
/// The longest rest that can be announced, and the shortest that is worth one while there is work.
constexpr Duration longestRest = seconds(5);
constexpr Duration shortestRest = seconds(1);

/// Leaves the rest of the machine's time to others: after work comes as much rest as makes work the asked share.
class Pacer {
public:
    Pacer(double dutyCycle, EngineHost& host) : idleShare_((1 - dutyCycle) / dutyCycle), host_(host) {
        workSince_ = host_.now();
    }

    /// Takes the rest that is due, if it is long enough to be worth it or the work is over. `progress` is the line
    /// that says where the work is, without the activity. True if the engine shall stop.
    bool rest(const std::string& progress, bool isOver) {
        const Duration now = host_.now();
        owed_ += std::chrono::duration<double, std::nano>(now - workSince_) * idleShare_;
        workSince_ = now;
        bool hasRested = false;
        while (owed_ >= shortestRest || (isOver && owed_ >= std::chrono::milliseconds(1))) {
            const Duration due = std::min(std::chrono::duration_cast<Duration>(owed_), longestRest);
            const auto announced = std::chrono::ceil<seconds>(due).count();
            host_.say(progress + " waiting " + std::to_string(announced));
            if (host_.wait(due)) return true;
            owed_ -= due;
            hasRested = true;
        }
        // What the rest itself took is no work.
        if (hasRested) {
            workSince_ = host_.now();
            if (!isOver) host_.say(progress + " running");
        }
        return false;
    }

private:
    const double idleShare_;
    EngineHost& host_;
    Duration workSince_{};
    std::chrono::duration<double, std::nano> owed_{};
};

std::string fraction(std::int64_t part, std::int64_t whole) {
    return std::to_string(part) + "/" + std::to_string(whole);
}

/// Rounded so that only the digits stay which are the same everywhere.
double rounded(double value, double digits) noexcept { return static_cast<double>(nearest(value * digits)) / digits; }

double decibelsOf(double factor) noexcept { return 6.020599913279624 * logarithm(factor); }

void sayResult(EngineHost& host, const EngineRequest& request, const Synthesizer& synthesizer) {
    // No step at all counts as half of the smallest one.
    const double seam = std::max(synthesizer.seamStep(), 1.0 / 65536);
    JSONWriter writer(JSONWriter::Form::compact);
    writer.beginObject();
    writer.member("file", request.file);
    writer.member("seconds", static_cast<double>(request.piece.frames) / static_cast<double>(sampleRate));
    writer.member("seamDB", rounded(decibelsOf(seam), 100));
    writer.member("brightness", rounded(synthesizer.brightness(), 10000));
    writer.member("makeupDB", rounded(decibelsOf(synthesizer.makeupGain()), 100));
    writer.member("leadIn", 0);
    writer.endObject();
    host.say("result " + writer.take());
}

/// Lets others hear the piece while it is being made: a second file that grows. Its level is not yet the final one, so
/// that the file of the piece itself can only be written at the end.
class PartialAudio {
public:
    PartialAudio(const EngineRequest& request, EngineHost& host)
        : host_(host),
          folder_(request.folder),
          name_(request.file == "partial.wav" ? "partial-audio.wav" : "partial.wav"),
          frames_(request.piece.frames) {}

    /// Writes and reports what is due: every five seconds of music, and the rest of the piece.
    void report(Synthesizer& synthesizer) {
        while (written_ < frames_) {
            const std::int64_t count = std::min(windowFrames, frames_ - written_);
            if (synthesizer.framesToDraft() < count) return;
            if (!writer_) writer_.emplace(folder_ / name_, static_cast<int>(sampleRate), 2);
            samples_.resize(static_cast<std::size_t>(2 * count));
            synthesizer.draft(samples_);
            writer_->write(samples_);
            writer_->flushHeader();
            written_ += count;
            say();
        }
    }

private:
    void say() {
        JSONWriter writer(JSONWriter::Form::compact);
        writer.beginObject();
        writer.member("file", name_);
        writer.member("seconds", static_cast<double>(written_) / static_cast<double>(sampleRate));
        writer.endObject();
        host_.say("audio " + writer.take());
    }

    EngineHost& host_;
    const std::filesystem::path folder_;
    const std::string name_;
    const std::int64_t frames_;
    std::optional<WAVWriter> writer_;
    std::vector<std::int16_t> samples_;
    std::int64_t written_ = 0;
};

EngineResult render(const EngineRequest& request, EngineHost& host) {
    Pacer pacer(request.dutyCycle, host);
    host.say("text encoder");
    WAVWriter writer(request.folder / request.file, static_cast<int>(sampleRate), 2);
    PartialAudio partial(request, host);
    Synthesizer synthesizer(request.piece);

    const std::int64_t toPlay = synthesizer.framesToPlay();
    const std::int64_t steps = (toPlay + windowFrames - 1) / windowFrames;
    constexpr std::int64_t blockLength = windowFrames / blocksPerStep;
    std::string progress;
    while (synthesizer.framesPlayed() < toPlay) {
        const std::int64_t block = synthesizer.framesPlayed() / blockLength;
        std::string reached = "progress sampling " + fraction(block / blocksPerStep + 1, steps) + " " +
                              fraction(block % blocksPerStep + 1, blocksPerStep);
        if (reached != progress) {
            progress = std::move(reached);
            host.say(progress + " running");
        }
        if (host.wait(Duration::zero())) return EngineResult::stopped;
        synthesizer.play(partFrames);
        partial.report(synthesizer);
        if (pacer.rest(progress, false)) return EngineResult::stopped;
    }

    host.say("decoder");
    if (host.wait(Duration::zero())) return EngineResult::stopped;
    synthesizer.finish();

    const std::int64_t frames = request.piece.frames;
    const std::int64_t windows = (frames + windowFrames - 1) / windowFrames;
    std::vector<std::int16_t> samples;
    for (std::int64_t window = 0; window < windows; ++window) {
        progress = "progress decoding " + fraction(window + 1, windows) + " 1/1";
        host.say(progress + " running");
        if (host.wait(Duration::zero())) return EngineResult::stopped;
        const std::int64_t start = window * windowFrames;
        const std::int64_t count = std::min(windowFrames, frames - start);
        samples.resize(static_cast<std::size_t>(2 * count));
        synthesizer.read(start, samples);
        writer.write(samples);
        if (pacer.rest(progress, false)) return EngineResult::stopped;
    }
    writer.finish();
    if (pacer.rest(progress, true)) return EngineResult::stopped;
    sayResult(host, request, synthesizer);
    return EngineResult::done;
}

}  // namespace

EngineResult run(const EngineRequest& request, EngineHost& host) {
    if (request.kind == EngineRequest::Kind::render) return render(request, host);
    JSONWriter writer(JSONWriter::Form::compact);
    writer.beginObject();
    writer.member("engineBuild", std::string_view(engineBuild));
    writer.endObject();
    host.say("result " + writer.take());
    return EngineResult::done;
}

}  // namespace quillmere::tonebed
