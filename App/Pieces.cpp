#include "App/Pieces.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <map>
#include <set>
#include <utility>

#include "App/MoodChoice.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"

namespace quillmere::app {

std::optional<std::filesystem::path> fileOf(const LoopArtifact& artifact) {
    if (!artifact.url.isFile()) return std::nullopt;
    auto path = artifact.url.path();
    if (!path.is_absolute() || path.native().find('\0') != std::string::npos) return std::nullopt;
    return path;
}

LoopArtifact namedPiece(const LoopStore& store, const std::string& fingerprint) {
    constexpr std::size_t shortestBeginning = 4;
    if (auto piece = store.artifact(fingerprint)) return *piece;
    std::vector<std::string> known;
    std::optional<LoopArtifact> found;
    std::size_t matches = 0;
    for (auto& piece : store.all()) {
        known.push_back(piece.id());
        if (fingerprint.size() < shortestBeginning || !known.back().starts_with(fingerprint)) continue;
        ++matches;
        found = std::move(piece);
    }
    if (matches == 1) return *found;
    const std::string reason = matches > 1 ? "more than one piece begins with \"" : "there is no piece \"";
    throw UsageError("fingerprint", reason + safeForTerminal(fingerprint) + "\"." +
                                        didYouMean(fingerprint, known, " 'quillmere library list' lists them."));
}

std::vector<LoopArtifact> piecesOf(const LoopStore& store, const std::string& moodID) {
    auto pieces = store.all();
    if (!moodID.empty()) {
        std::set<std::string> known;
        for (const auto& piece : pieces) known.insert(piece.identity.moodID);
        if (!known.contains(moodID)) {
            requireReadable(moodID);
            for (auto& id : moodIDs()) known.insert(std::move(id));
        }
        if (!known.contains(moodID)) {
            throw UsageError("--mood",
                             "there is no mood \"" + safeForTerminal(moodID) + "\"." +
                                 didYouMean(moodID, {known.begin(), known.end()}, " 'quillmere moods' lists them."));
        }
        std::erase_if(pieces, [&](const LoopArtifact& piece) { return piece.identity.moodID != moodID; });
    }
    // By mood; within each by fingerprint, as the store gives them.
    std::map<std::string, std::vector<LoopArtifact>> moods;
    for (auto& piece : pieces) moods[piece.identity.moodID].push_back(std::move(piece));
    pieces.clear();
    for (auto& [mood, ofMood] : moods) std::ranges::move(ofMood, std::back_inserter(pieces));
    return pieces;
}

std::string placeText(const LoopArtifact& artifact, const std::filesystem::path& folder) {
    const auto file = fileOf(artifact);
    if (file && standardPath(*file).parent_path() == folder) return file->filename().string();
    return artifact.url.text();
}

std::string pieceLine(const LoopArtifact& artifact) {
    std::array<char, 64> facts{};
    std::snprintf(facts.data(), facts.size(), "b%lld  %7.1f s", static_cast<long long>(artifact.identity.blend.index()),
                  artifact.seconds);
    std::string loudness = "   not measured";
    if (artifact.quality && artifact.quality->loudness) {
        std::array<char, 32> text{};
        const auto integrated = artifact.quality->loudness->integratedLUFS;
        if (integrated) std::snprintf(text.data(), text.size(), "%10.1f LUFS", *integrated);
        loudness = integrated ? text.data() : "         silent";
    }
    std::string mood = safeForTerminal(artifact.identity.moodID);
    mood.resize(std::max<std::size_t>(mood.size(), 16), ' ');
    return artifact.id() + "  " + mood + "  " + facts.data() + loudness + "  seed " +
           std::to_string(artifact.identity.seed);
}

std::string sizeText(std::uint64_t bytes) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f MB", static_cast<double>(bytes) / (1024.0 * 1024.0));
    return text.data();
}

void writePiece(JSONWriter& writer, const LoopArtifact& artifact) {
    writer.beginObject();
    writer.member("fingerprint", artifact.id());
    writer.member("artifact", artifact);
    const auto file = fileOf(artifact);
    const auto facts = file ? factsOf(*file) : std::nullopt;
    if (facts) {
        writer.key("bytes");
        writer.unsignedInteger(facts->size);
        writer.member("modified", iso8601(facts->modified));
    }
    writer.endObject();
}

}  // namespace quillmere::app
