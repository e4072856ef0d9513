#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/LosslessEncoder.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Support/AudioFiles.hpp"

namespace quillmere::test {

/// A store with one piece that can be migrated, and encoders that do what they are told.
struct MigrationFixture : LoopStoreFixture {
    std::vector<std::int16_t> samples = tones(1, 2, 20'001);
    LoopArtifact track = trackNamed(identity("focus").filename(), identity("focus"));
    std::string digest = AudioPCM::digest(track.url);
    int encodings = 0;  ///< How often `encode` was called.

    LoopStore::Encode encode = [this](const FileURL& source, const FileURL& destination) {
        ++encodings;
        encodeALAC(source, destination);
    };

    /// An encoder that writes these samples instead of the source's.
    LoopStore::Encode writing(std::vector<std::int16_t> other, int sampleRate = 48000, int channels = 2) {
        return [this, other = std::move(other), sampleRate, channels](const FileURL&, const FileURL& destination) {
            ++encodings;
            writeALAC(destination.path(), other, sampleRate, channels);
        };
    }

    /// A piece whose audio is a WAV file "name.wav" of `samples`.
    [[nodiscard]] LoopArtifact trackNamed(const std::string& name, LoopIdentity of) const {
        return artifactAt(std::move(of), FileURL::fromPath(home.putFile("Loops/" + name + ".wav", wavBytes(samples))));
    }

    [[nodiscard]] std::filesystem::path wav() const { return track.url.path(); }
    [[nodiscard]] std::filesystem::path m4a() const { return std::filesystem::path(wav()).replace_extension(".m4a"); }
    [[nodiscard]] std::filesystem::path temporary() const {
        return folder / ("." + wav().filename().string() + ".migration.m4a");
    }

    /// The code of the error with which the migration fails; an empty one, and a failed test, if it does not.
    std::error_code failureOf(LoopStore& store, const LoopStore::Encode& with) { return failureOf(store, with, track); }
    static std::error_code failureOf(LoopStore& store, const LoopStore::Encode& with, const LoopArtifact& piece) {
        try {
            store.migrateToLossless(piece, with);
        } catch (const FileError& error) {
            return error.code();
        }
        ADD_FAILURE() << "the migration did not fail";
        return {};
    }

    /// Memory and manifest name the WAV file, it plays, and nothing of the migration is left but perhaps a target.
    void expectUntouched(LoopStore& store) const {
        EXPECT_EQ(store.artifact(track.identity), track);
        EXPECT_THAT(listedURLs(), testing::Contains(track.url.text()));
        EXPECT_EQ(AudioPCM::digest(track.url), digest);
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(temporary())));
    }

    /// Memory and manifest name the lossless file, it plays, and the WAV file and all else is gone.
    void expectMigrated(LoopStore& store) const {
        const auto url = FileURL::fromPath(m4a());
        EXPECT_EQ(store.artifact(track.identity), track.withURL(url));
        EXPECT_THAT(listedURLs(), testing::Contains(url.text()));
        EXPECT_EQ(AudioPCM::digest(url), digest);
        EXPECT_FALSE(std::filesystem::exists(wav()));
        EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(temporary())));
    }
};

}  // namespace quillmere::test
