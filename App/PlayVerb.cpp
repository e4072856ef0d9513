#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include "App/Choice.hpp"
#include "App/CommandLine.hpp"
#include "App/EndOfWork.hpp"
#include "App/Host.hpp"
#include "App/Mixer.hpp"
#include "App/MoodChoice.hpp"
#include "App/NumberBetween.hpp"
#include "App/Output.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Platform/UUID.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "QuillmereKit/Playback/Playlist.hpp"
#include "QuillmereKit/Playback/RadioSet.hpp"

namespace quillmere::app {
namespace {

struct PlayOptions {
    std::vector<std::string> moods;  // none: the radio's
    std::string output;
    double minutes = 10;
    double crossfade = 4;
    std::int64_t turn = 3;
    std::optional<std::int64_t> seed;
    std::string model;
    bool isForced = false;
};

// One piece of the stream: no more than is reported, for there may be many.
struct Played {
    std::int64_t startFrame = 0;
    std::string fingerprint;
    std::string moodID;
    std::string file;
    double gainDB = 0;
};

// A WAV file holds no more than 4 GiB.
constexpr double longestMinutes = 370;

// Chooses the pieces as a player does: the moods take turns on air, and within a mood its playlist decides.
class Programme {
public:
    Programme(const PlayOptions& options, RadioSet radio, std::uint64_t seed, const LoopStore& store)
        : radio_(std::move(radio)), turn_(options.turn) {
        const std::optional<std::string_view> model =
            options.model.empty() ? std::nullopt : std::optional<std::string_view>(options.model);
        for (const auto& id : radio_.moodIDs()) {
            requireReadable(id);
            auto pool = store.playbackPool(id, model, {});
            if (pool.empty()) {
                throw Error("There is no music for the mood \"" + id + "\" yet. 'quillmere generate --mood " + id +
                            "' makes some.");
            }
            playlists_.try_emplace(id, Playlist(std::move(pool), seed));
        }
    }

    /// The next piece that can be opened; nothing when none can. A mood that has none leaves the air to the next one.
    std::optional<Voice> next(std::int64_t startFrame) {
        if (onAir_ == turn_) advance();
        for (std::size_t moods = radio_.count(); moods > 0; --moods) {
            if (auto voice = nextOfMood(startFrame)) return voice;
            advance();
        }
        return std::nullopt;
    }

    [[nodiscard]] const std::vector<Played>& played() const noexcept { return played_; }

private:
    void advance() {
        radio_.advance();
        onAir_ = 0;
    }

    // The next piece of the mood on air that can be opened. Each has been tried after two rounds without one.
    std::optional<Voice> nextOfMood(std::int64_t startFrame) {
        Playlist& playlist = playlists_.at(radio_.onAir());
        for (std::size_t tries = 2 * playlist.count(); tries > 0; --tries) {
            const LoopArtifact piece = *playlist.current();
            playlist.advance();
            const double gainDB = gainOf(piece);
            try {
                Voice voice(piece.url.path(), gainDB);
                if (voice.frames() < Voice::sampleRate) {
                    throw Error("\"" + piece.url.path().string() + "\" is shorter than a second.");
                }
                played_.push_back({startFrame, piece.id(), piece.identity.moodID, pathText(piece.url.path()), gainDB});
                ++onAir_;
                return voice;
            } catch (const Error& error) {
                if (passedOver_.insert(piece.id()).second) Host::warn(error.what());
            }
        }
        return std::nullopt;
    }

    // A piece that was never measured counts as one of which nothing is known yet.
    static double gainOf(const LoopArtifact& piece) {
        const auto loudness =
            piece.quality && piece.quality->loudness ? *piece.quality->loudness : AudioLoudness{.seconds = 0.0};
        const double gain = loudness.streamGainDB(std::nullopt, piece.seconds);
        return std::isfinite(gain) ? gain : 0.0;
    }

    RadioSet radio_;
    std::int64_t turn_;
    std::int64_t onAir_ = 0;  // pieces since the mood came on air
    std::map<std::string, Playlist> playlists_;
    std::vector<Played> played_;
    std::set<std::string> passedOver_;  // said so once
};

std::uint64_t randomSeed() {
    std::uint64_t bits = 0;
    const UUID random = UUID::random();
    std::memcpy(&bits, random.bytes.data(), sizeof bits);
    return bits >> 33;  // 31 bits: short enough to be typed again
}

double secondsOf(std::int64_t frames) { return static_cast<double>(frames) / Voice::sampleRate; }

void report(const Host& host, const std::string& file, std::uint64_t seed, std::int64_t frames,
            const std::vector<Played>& played) {
    if (!host.json) {
        for (const Played& piece : played) {
            const auto seconds = static_cast<long long>(secondsOf(piece.startFrame));
            std::printf("%4lld:%02lld  %-16s %s  %+.1f dB\n", seconds / 60, seconds % 60,
                        safeForTerminal(piece.moodID).c_str(), piece.fingerprint.c_str(), piece.gainDB);
        }
        std::printf("%s  %.0f s  seed %llu\n", safeForTerminal(file).c_str(), secondsOf(frames),
                    static_cast<unsigned long long>(seed));
        return;
    }
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("file", file);
    writer.member("seconds", secondsOf(frames));
    writer.key("seed");
    writer.unsignedInteger(seed);
    writer.key("pieces");
    writer.beginArray();
    for (const Played& piece : played) {
        writer.beginObject();
        writer.member("start", secondsOf(piece.startFrame));
        writer.member("fingerprint", piece.fingerprint);
        writer.member("moodID", piece.moodID);
        writer.member("file", piece.file);
        writer.member("gainDB", piece.gainDB);
        writer.endObject();
    }
    writer.endArray();
    writer.endObject();
    printJSON(writer);
}

RadioSet chosenRadio(Host& host, const PlayOptions& options) {
    for (const auto& id : options.moods) static_cast<void>(playableMood("--mood", id));
    if (const auto named = RadioSet::make(options.moods, std::nullopt)) return *named;
    const auto& kept = host.settingsFile().settings().radio;
    // A radio read from a file may name a mood on air that is not among its own.
    const auto radio = kept ? RadioSet::make(kept->moodIDs(), kept->onAir()) : std::nullopt;
    if (radio) return *radio;
    throw UsageError("--mood, or a radio ('quillmere radio make') is required");
}

void play(Host& host, const PlayOptions& options) {
    const Interruption interruption;
    const auto stop = interruption.token();
    const std::uint64_t seed = options.seed ? static_cast<std::uint64_t>(*options.seed) : randomSeed();
    Programme programme(options, chosenRadio(host, options), seed, *host.readingStore());

    OutputFile output(options.output, options.isForced);
    const std::int64_t total = std::llround(options.minutes * 60 * Voice::sampleRate);
    std::int64_t frames = 0;
    try {
        WAVWriter wav(output.temporary(), Voice::sampleRate, static_cast<int>(Voice::channels));
        Mixer mixer(std::llround(options.crossfade * Voice::sampleRate));
        frames = mixer.play(
            total, [&](std::int64_t start) { return programme.next(start); },
            [&](std::span<const std::int16_t> samples) {
                if (stop.stop_requested()) throw CancellationError();
                wav.write(samples);
            },
            [](const std::string& reason) { Host::warn(reason); });
        if (frames == 0) throw Error("No piece could be played.");
        if (frames < total) Host::warn("The file is shorter than asked: no further piece could be played.");
        wav.finish();
    } catch (const CancellationError&) {
        return host.fail(ExitCode::interrupted, "Stopped.");
    }
    output.moveIntoPlace();
    report(host, pathText(absolutePath(options.output)), seed, frames, programme.played());
}

}  // namespace

void addPlayVerb(Verb program, Host& host) {
    auto options = std::make_shared<PlayOptions>();
    Verb verb = program.addVerb("play", "Render what a player would play into a WAV file");
    verb.footer(
        "The pieces of a mood play in rounds, shuffled by the seed, each at its own gain and faded into the next.\n"
        "Several moods take turns on air.\n\n"
        "Example: quillmere play --mood designflow --minutes 30 --output evening.wav");
    verb.addOption("--mood", options->moods, "A mood's id; can be given again (default: the radio's moods)")
        .typeName("MOOD");
    verb.addOption("--output", options->output, "The WAV file to write").typeName("FILE").required();
    verb.addOption("--minutes", options->minutes, "How much to play, up to 370")
        .check(NumberBetween(0.001, longestMinutes))
        .defaultText("10");
    verb.addOption("--seed", options->seed, "What the rounds are shuffled by (default: random)").notNegative();
    verb.addOption("--crossfade", options->crossfade, "How long a cross-fade takes, in seconds")
        .check(NumberBetween(0, 30))
        .defaultText("4");
    verb.addOption("--turn", options->turn, "How many pieces a mood stays on air where several take turns")
        .between(1, 100000)
        .defaultText("3");
    Choice::Cases models;
    for (const auto model : allCases<GenerationModel>()) models.emplace_back(rawValue(model), identityModel(model));
    const Choice model(std::move(models));
    verb.addOption("--model", options->model, "Prefer music of this model").transform(model, model.names());
    verb.addFlag("--force", options->isForced, "Replace an existing file");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([options, &host] {
        host.prepare();
        play(host, *options);
    });
}

}  // namespace quillmere::app
