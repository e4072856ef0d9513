#include "App/PrunePlan.hpp"

#include <algorithm>
#include <map>
#include <ranges>

#include "App/ManifestFile.hpp"
#include "App/Pieces.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"

namespace quillmere::app {
namespace {

struct Aged {
    const LoopArtifact* piece;
    std::string fingerprint;
    FileFacts facts;
};

}  // namespace

std::uint64_t PrunePlan::bytes() const {
    std::uint64_t sum = 0;
    for (const auto& victim : victims) sum += victim.bytes;
    return sum;
}

PrunePlan PrunePlan::make(const std::vector<LoopArtifact>& pieces, const std::filesystem::path& folder, double seconds,
                          const std::set<std::string>& safe) {
    const OwnFolder own(folder);
    PrunePlan plan;
    std::map<std::string, std::vector<Aged>> moods;
    for (const auto& piece : pieces) {
        auto fingerprint = piece.id();
        const auto file = fileOf(piece);
        const bool isAudio = file && !isLibraryRecord(file->filename().native());
        const auto facts = isAudio ? own.facts(*file) : std::nullopt;
        if (facts) {
            moods[piece.identity.moodID].push_back({&piece, std::move(fingerprint), *facts});
        } else {
            plan.keeping.insert(std::move(fingerprint));
        }
    }
    for (auto& [moodID, aged] : moods) {
        std::ranges::sort(aged, [](const Aged& a, const Aged& b) {
            if (a.facts.modified != b.facts.modified) return a.facts.modified > b.facts.modified;
            return a.fingerprint < b.fingerprint;
        });
        double kept = 0;
        const auto firstVictim = plan.victims.size();
        for (const auto& each : aged) {
            const bool isNewest = !(kept >= seconds);
            // A length that is no length keeps nothing else from being kept.
            if (isNewest && each.piece->seconds > 0) kept += each.piece->seconds;
            if (isNewest || each.piece->identity.isRecording() || safe.contains(each.fingerprint)) {
                plan.keeping.insert(each.fingerprint);
            } else {
                plan.victims.push_back({*each.piece, each.facts.size});
            }
        }
        std::ranges::reverse(plan.victims.begin() + static_cast<std::ptrdiff_t>(firstVictim), plan.victims.end());
    }
    return plan;
}

}  // namespace quillmere::app
