#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "Tests/Support/OtherProcess.hpp"
#include "Tests/Support/TemporaryFolder.hpp"

namespace quillmere::test {

/// A folder for a store named "Loops", one for an application's resources named "App", and a `discard` that deletes and
/// remembers what it was asked to.
struct LoopStoreFixture : testing::Test {
    TemporaryFolder home;
    std::filesystem::path folder = home.path() / "Loops";
    std::vector<FileURL> discarded;
    bool discards = true;  ///< What `discard` does and answers.

    LoopStore open() {
        return LoopStore(folder, ResourceBundle(home.path() / "App"), [this](const FileURL& url) {
            discarded.push_back(url);
            return discards && std::filesystem::remove_all(url.path()) > 0;
        });
    }

    [[nodiscard]] static LoopIdentity identity(std::string moodID, std::int64_t blend = 2, std::int64_t seed = 1,
                                               std::string model = "sa3_medium_mlx_v2") {
        return {.moodID = std::move(moodID),
                .blend = BlendStep(blend),
                .calmPrompt = "calm pads",
                .energeticPrompt = "driving pulse",
                .seed = seed,
                .model = std::move(model),
                .prompt = std::nullopt,
                .audio = std::nullopt,
                .recipe = 1};
    }

    [[nodiscard]] static LoopIdentity recording(std::string moodID, std::int64_t seed = 1,
                                                std::string model = "microphone") {
        auto result = identity(std::move(moodID), 2, seed, std::move(model));
        result.audio.emplace();
        result.audio->kind = AudioUse::Kind::recording;
        return result;
    }

    [[nodiscard]] static LoopArtifact artifactAt(LoopIdentity identity, FileURL url) {
        return {.identity = std::move(identity),
                .url = std::move(url),
                .seconds = 120,
                .seamDB = std::nullopt,
                .quality = std::nullopt,
                .leadIn = std::nullopt,
                .engineBuild = std::nullopt,
                .origin = std::nullopt};
    }

    /// A piece whose audio file, named as the generation side names it, is there: four bytes long.
    [[nodiscard]] LoopArtifact piece(LoopIdentity identity) const {
        const auto name = identity.filename() + ".wav";
        return artifactAt(std::move(identity), FileURL::fromPath(home.putFile("Loops/" + name, "RIFF")));
    }
    [[nodiscard]] LoopArtifact piece(std::string moodID, std::int64_t blend = 2, std::int64_t seed = 1,
                                     std::string model = "sa3_medium_mlx_v2") const {
        return piece(identity(std::move(moodID), blend, seed, std::move(model)));
    }

    void writeManifest(std::string_view text) const { home.putFile("Loops/manifest.json", text); }
    void writeManifest(const std::vector<LoopArtifact>& artifacts) const;

    [[nodiscard]] std::string manifestText() const { return home.content("Loops/manifest.json"); }

    /// The URLs that the manifest lists, in its order, read by an independent parser.
    [[nodiscard]] std::vector<std::string> listedURLs() const {
        std::vector<std::string> urls;
        for (const auto& entry : nlohmann::json::parse(manifestText())) urls.push_back(entry.at("url"));
        return urls;
    }

    /// The names in the store's folder that begin with `prefix`.
    [[nodiscard]] std::vector<std::string> namesBeginning(std::string_view prefix) const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().filename().native().starts_with(prefix)) names.push_back(entry.path().filename());
        }
        return names;
    }
};

/// The artifacts of one list in fingerprint order, sorted by the texts.
[[nodiscard]] std::vector<LoopArtifact> byFingerprint(std::vector<LoopArtifact> artifacts);

[[nodiscard]] std::vector<std::string> fingerprints(const std::vector<LoopArtifact>& artifacts);

}  // namespace quillmere::test
