#include <array>
#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/EndOfWork.hpp"
#include "App/Host.hpp"
#include "App/LibraryVerbs.hpp"
#include "App/Output.hpp"
#include "App/Pieces.hpp"
#include "App/Terminal.hpp"
#include "QuillmereKit/Library/LoudnessMeter.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/PageAligned.hpp"

namespace quillmere::app {
namespace {

AudioLoudness measured(const std::filesystem::path& file, const std::stop_token& stop) {
    AudioFile audio(file);
    const auto& format = audio.format();
    if (format.sampleRate != 48000 || format.channels < 1 || format.channels > 2) {
        throw FileError("measure", file, make_error_code(FileFault::fileReadCorruptFile));
    }
    constexpr std::size_t framesAtATime = 9600;
    PageAligned<std::int16_t> samples(framesAtATime * static_cast<std::size_t>(format.channels));
    std::vector<float> scaled(samples.size());
    LoudnessMeter meter(format.channels);
    while (const auto frames = audio.read(samples)) {
        if (stop.stop_requested()) throw CancellationError();
        const auto count = frames * static_cast<std::size_t>(format.channels);
        for (std::size_t i = 0; i < count; ++i) scaled[i] = static_cast<float>(samples[i]) / 32768.0F;
        meter.append(std::span(scaled).first(count));
    }
    return meter.measurement().value();  // whole numbers are finite
}

void measureAll(Host& host) {
    struct Failure {
        std::string fingerprint;
        std::string message;
    };
    const Interruption interruption;
    const auto& store = host.writableStore();
    const auto pieces = store->loudnessCandidates();
    std::vector<std::pair<std::string, AudioLoudness>> done;
    std::vector<Failure> failures;
    std::optional<std::string> saveFailure;
    ProgressLine progress;
    for (std::size_t index = 0; index < pieces.size() && !saveFailure; ++index) {
        const auto& piece = pieces[index];
        progress.show(std::to_string(index + 1) + " of " + std::to_string(pieces.size()) + " · " + piece.id(),
                      static_cast<double>(index) / static_cast<double>(pieces.size()));
        AudioLoudness loudness;
        try {
            const auto file = fileOf(piece);
            if (!file) throw Error("Its address names no file.");
            loudness = measured(*file, interruption.token());
        } catch (const CancellationError&) {
            break;
        } catch (const Error& error) {
            failures.push_back({piece.id(), error.what()});
            continue;
        }
        try {
            if (store->setLoudness(loudness, piece)) done.emplace_back(piece.id(), loudness);
        } catch (const Error& error) {
            saveFailure = error.what();
        }
    }
    progress.clear();

    if (host.json) {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.key("measured");
        writer.beginObject();
        for (const auto& [fingerprint, loudness] : done) writer.member(fingerprint, loudness);
        writer.endObject();
        writer.key("failed");
        writer.beginObject();
        for (const auto& failure : failures) writer.member(failure.fingerprint, jsonText(failure.message));
        writer.endObject();
        writer.endObject();
        printJSON(writer);
    } else {
        for (const auto& [fingerprint, loudness] : done) {
            std::array<char, 64> text{};
            std::snprintf(text.data(), text.size(), "%.1f LUFS", loudness.integratedLUFS.value_or(0));
            std::printf("%s  %s, peak %.3f\n", fingerprint.c_str(), loudness.integratedLUFS ? text.data() : "silent",
                        loudness.peak);
        }
        if (pieces.empty()) std::printf("Every piece is measured.\n");
    }
    for (const auto& failure : failures) host.fail(ExitCode::failure, failure.fingerprint + ": " + failure.message);
    if (saveFailure) return host.fail(ExitCode::notSaved, "The library could not be saved: " + *saveFailure);
    if (interruption.token().stop_requested()) host.fail(ExitCode::interrupted, "Stopped.");
}

}  // namespace

void addLibraryMeasureVerb(Verb library, Host& host) {
    Verb verb = library.addVerb("measure", "Measure the loudness of the pieces that lack it");
    verb.footer("Example: quillmere library measure");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([&host] {
        host.prepare();
        measureAll(host);
    });
}

}  // namespace quillmere::app
