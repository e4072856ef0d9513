#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "QuillmereKit/Library/FileSHA256.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "Tests/Library/MigrationFixture.hpp"
#include "Tests/Support/SystemCallFaults.hpp"

namespace quillmere::test {
namespace {

struct LosslessFaultTests : MigrationFixture {
    LosslessFaultTests() { samples.resize(2 * 9001); }

    void SetUp() override { renew(); }

    /// The library as it was before: one piece in a WAV file.
    void renew() {
        std::filesystem::remove_all(folder);
        track = trackNamed(identity("focus").filename(), identity("focus"));
        digest = AudioPCM::digest(track.url);
        writeManifest(std::vector{track});
    }

    /// Whatever happened, a store opened on the folder finds the piece, and what it names plays.
    void expectPlays(const std::string& when) {
        const auto stored = open().artifact(track.identity);
        ASSERT_TRUE(stored) << when;
        EXPECT_EQ(AudioPCM::digest(stored->url), digest) << when;
        if (stored->url == track.url) return;
        EXPECT_EQ(stored->url.path(), m4a()) << when;
    }

    /// Migrates with each system call failing in turn, each time from the start. `prepare` may put more into the
    /// folder.
    template <class Prepare>
    std::set<std::string> failInTurn(int error, const Prepare& prepare) {
        std::set<std::string> struck;
        for (int failing = 1;; ++failing) {
            renew();
            prepare();
            bool isMigrated = false;
            std::string call;
            {
                auto store = open();
                const SystemCallFaults faults({.failing = failing, .error = error});
                try {
                    isMigrated = store.migrateToLossless(track, encode);
                } catch (const FileError&) {
                    EXPECT_FALSE(isMigrated);
                }
                call = faults.struck();
            }
            const auto when = call + " fails as call " + std::to_string(failing);
            expectPlays(when);
            if (call.empty()) {
                EXPECT_TRUE(isMigrated);
                return struck;
            }
            struck.insert(call);
        }
    }
};

TEST_F(LosslessFaultTests, WhateverSystemCallFailsThePieceStillPlays) {
    const auto struck = failInTurn(EIO, [] {});

    EXPECT_THAT(struck, testing::IsSupersetOf({"pread", "pwrite", "fsync", "renameat2", "renameat", "open", "openat"}));
}

TEST_F(LosslessFaultTests, WhateverFailsWhileATargetIsAdoptedThePieceStillPlays) {
    failInTurn(EIO, [&] { writeALAC(m4a(), samples); });
}

TEST_F(LosslessFaultTests, WhateverFailsWhileADamagedLosslessPieceIsMadeAnewItStillPlays) {
    for (int failing = 1;; ++failing) {
        renew();
        home.putFile("Loops/" + m4a().filename().string(), "damaged");
        const auto damaged = track.withURL(FileURL::fromPath(m4a()));
        writeManifest(std::vector{damaged});
        std::string call;
        {
            auto store = open();
            const SystemCallFaults faults({.failing = failing, .error = EIO});
            try {
                static_cast<void>(store.migrateToLossless(damaged, encode));
            } catch (const FileError&) {
                // What matters is below.
            }
            call = faults.struck();
        }
        const auto stored = open().artifact(track.identity);
        ASSERT_TRUE(stored) << call << " fails as call " << failing;
        // The damaged file is still there and named, or something that plays is.
        const bool isDamaged = stored->url.path() == m4a() && std::filesystem::file_size(m4a()) == 7;
        EXPECT_EQ(AudioPCM::digest(isDamaged ? track.url : stored->url), digest);
        if (call.empty()) break;
    }
}

TEST_F(LosslessFaultTests, TheWAVFileStaysWhereItsTwinWasWrittenAnewAfterTheProof) {
    bool wasWrittenAnew = false;
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE(failing);
        renew();
        std::vector<RecordedCall> calls;
        std::string struck;
        bool isMigrated = false;
        auto store = open();
        {
            const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "fsync", .record = &calls});
            try {
                isMigrated = store.migrateToLossless(track, encode);
            } catch (const FileError&) {
                EXPECT_FALSE(isMigrated);
            }
            struck = faults.struck();
        }
        if (struck.empty()) break;
        const auto namings = std::ranges::count(calls, m4a(), &RecordedCall::to);
        if (!isMigrated || namings < 2) continue;
        wasWrittenAnew = true;
        const auto migrated = track.withURL(FileURL::fromPath(m4a()));
        EXPECT_EQ(store.artifact(track.identity), migrated);
        EXPECT_EQ(AudioPCM::digest(track.url), digest);

        EXPECT_TRUE(store.migrateToLossless(migrated, encode));
        expectMigrated(store);
    }
    EXPECT_TRUE(wasWrittenAnew);
}

TEST_F(LosslessFaultTests, ShortAndInterruptedReadsAndWritesChangeNothing) {
    auto store = open();
    bool isMigrated = false;
    {
        const SystemCallFaults faults({.mostBytes = 1000, .interrupts = true});
        isMigrated = store.migrateToLossless(track, encode);
    }

    EXPECT_TRUE(isMigrated);
    expectMigrated(store);
}

TEST_F(LosslessFaultTests, AFullDiskIsNamedAndLeavesNoFile) {
    // Noise, which takes as much room as before: it is written by several pieces, before the end and then.
    std::minstd_rand random(1);
    samples.resize(600'000);
    for (auto& sample : samples) sample = static_cast<std::int16_t>(random());
    renew();
    for (const int failing : {1, 2, 3, 4, 5}) {
        std::error_code code;
        {
            const SystemCallFaults faults({.failing = failing, .error = ENOSPC, .call = "pwrite"});
            try {
                encodeALAC(track.url, FileURL::fromPath(m4a()));
            } catch (const FileError& error) {
                code = error.code();
            }
            ASSERT_EQ(faults.struck(), "pwrite") << failing;
        }
        EXPECT_EQ(code, std::errc::no_space_on_device) << failing;
        EXPECT_FALSE(std::filesystem::exists(m4a()));
    }
}

TEST_F(LosslessFaultTests, AnInputErrorIsNamedAndGivesNoDigest) {
    writeALAC(m4a(), samples);
    for (const auto& url : {track.url, FileURL::fromPath(m4a())}) {
        for (int failing = 1;; ++failing) {
            std::string result;
            std::error_code code;
            const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "pread"});
            try {
                result = AudioPCM::digest(url);
            } catch (const FileError& error) {
                code = error.code();
            }
            if (faults.struck().empty()) break;
            EXPECT_EQ(code, std::errc::io_error) << url.text() << " " << failing;
            EXPECT_EQ(result, "");
        }
    }
}

TEST_F(LosslessFaultTests, AWholeFilesDigestIsNeverThatOfAPart) {
    for (int failing = 1;; ++failing) {
        std::string result;
        const SystemCallFaults faults({.failing = failing, .error = EIO, .call = "read"});
        try {
            result = FileSHA256::digest(track.url);
        } catch (const FileError& error) {
            EXPECT_EQ(error.code(), std::errc::io_error);
        }
        if (faults.struck().empty()) break;
        EXPECT_EQ(result, "");
    }
    const auto whole = FileSHA256::digest(track.url);
    const SystemCallFaults faults({.mostBytes = 999, .interrupts = true});
    EXPECT_EQ(FileSHA256::digest(track.url), whole);
}

}  // namespace
}  // namespace quillmere::test
