#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "Tests/Library/MigrationFixture.hpp"

namespace quillmere::test {
namespace {

using std::filesystem::path;
using testing::ElementsAre;
using testing::IsEmpty;

const auto corrupt = make_error_code(FileFault::fileReadCorruptFile);
const auto unconfirmed = make_error_code(FileFault::fileWriteUnknown);

struct LoopStoreMigrationTests : MigrationFixture {
    UUID player = UUID::random();

    LoopStore opened() {
        writeManifest(std::vector{track});
        return open();
    }

    /// The candidates when the store holds just this piece.
    std::vector<LoopArtifact> candidatesWith(const LoopArtifact& artifact) {
        writeManifest(std::vector{artifact});
        return open().losslessMigrationCandidates();
    }
};

// What may be migrated

TEST_F(LoopStoreMigrationTests, TracksAndRecordingsInWAVFilesAreCandidatesByFingerprint) {
    const auto recorded = trackNamed("recorded", recording("focus", 7));
    const auto other = trackNamed("other", identity("calm", 1, 5, "ace_1.5"));
    const auto engine = trackNamed("engine", identity("calm", 1, 6, "sa3_small_music_tflite_v1"));
    writeManifest(std::vector{track, recorded, other, engine});

    auto candidates = open().losslessMigrationCandidates();

    EXPECT_THAT(candidates, testing::IsSupersetOf({track, recorded}));
    EXPECT_EQ(candidates, byFingerprint(candidates));
    for (const auto& candidate : candidates) EXPECT_TRUE(candidate.isTrack());
}

TEST_F(LoopStoreMigrationTests, PiecesOfUnknownModelsAreNoCandidates) {
    EXPECT_THAT(candidatesWith(trackNamed("unknown", identity("focus", 2, 1, "an unknown model"))), IsEmpty());
}

TEST_F(LoopStoreMigrationTests, ExtensionsAreComparedWithoutRegardToCase) {
    home.putFile("Loops/loud.WAV", wavBytes(samples));
    const auto loud = artifactAt(identity("focus", 3), FileURL::fromPath(folder / "loud.WAV"));
    EXPECT_THAT(candidatesWith(loud), ElementsAre(loud));

    auto store = open();
    EXPECT_TRUE(store.migrateToLossless(loud, encode));
    EXPECT_EQ(store.artifact(loud.identity), loud.withURL(FileURL::fromPath(folder / "loud.m4a")));
    EXPECT_FALSE(std::filesystem::exists(folder / "loud.WAV"));
}

TEST_F(LoopStoreMigrationTests, OtherFilesAreNoCandidates) {
    for (const std::string name : {"piece.aiff", "piece", "piece.wave", "wav", ".wav", "piece.wav.bak"}) {
        SCOPED_TRACE(name);
        const auto file = home.putFile("Loops/" + name, wavBytes(samples));
        EXPECT_THAT(candidatesWith(artifactAt(identity("focus", 3), FileURL::fromPath(file))), IsEmpty());
    }
}

TEST_F(LoopStoreMigrationTests, ALosslessPieceIsACandidateOnlyWithAWAVFileBesideIt) {
    writeALAC(m4a(), samples);
    const auto migrated = track.withURL(FileURL::fromPath(m4a()));
    EXPECT_THAT(candidatesWith(migrated), ElementsAre(migrated));

    std::filesystem::remove(wav());

    EXPECT_THAT(candidatesWith(migrated), IsEmpty());
    EXPECT_FALSE(open().migrateToLossless(migrated, encode));
    EXPECT_EQ(encodings, 0);
}

TEST_F(LoopStoreMigrationTests, ProtectedPiecesAreNoCandidatesUntilTheirLastOwnerLetsGo) {
    auto store = opened();
    const UUID other = UUID::random();
    store.protectFromMigration({track.id(), "0123456789abcdef"}, player);
    store.protectFromMigration({track.id()}, other);

    EXPECT_THAT(store.losslessMigrationCandidates(), IsEmpty());
    EXPECT_FALSE(store.migrateToLossless(track, encode));
    store.protectFromMigration({}, player);
    EXPECT_THAT(store.losslessMigrationCandidates(), IsEmpty());
    store.protectFromMigration({"0123456789abcdef"}, other);
    EXPECT_THAT(store.losslessMigrationCandidates(), ElementsAre(track));
    EXPECT_EQ(encodings, 0);
    expectUntouched(store);
}

TEST_F(LoopStoreMigrationTests, SeedsAreNoCandidates) {
    home.putFile("App/seed.m4a", "seed");
    const auto seeded = encodeJSON(track.identity, JSONWriter::Form::compact);
    home.putFile("App/seeds.json", R"([{"file": "seed", "seconds": 1, "identity": )" + seeded + "}]");
    EXPECT_THAT(candidatesWith(track), IsEmpty());
    EXPECT_FALSE(open().migrateToLossless(track, encode));
}

TEST_F(LoopStoreMigrationTests, FilesOutsideTheFolderOrBehindALinkAreNoCandidates) {
    home.putFile("Loops-old/piece.wav", wavBytes(samples));
    home.putFile("Elsewhere/piece.wav", wavBytes(samples));
    std::filesystem::create_directory_symlink(home.path() / "Elsewhere", folder / "linked");
    std::filesystem::create_symlink(home.path() / "Elsewhere/piece.wav", folder / "link.wav");

    for (const path& place : {home.path() / "Loops-old/piece.wav", home.path() / "Elsewhere/piece.wav",
                              folder / "linked/piece.wav", folder / "link.wav", folder / "../Elsewhere/piece.wav"}) {
        SCOPED_TRACE(place);
        const auto foreign = artifactAt(identity("focus", 3), FileURL::fromPath(place));
        EXPECT_THAT(candidatesWith(foreign), IsEmpty());
        auto store = open();
        EXPECT_FALSE(store.migrateToLossless(foreign, encode));
        EXPECT_TRUE(store.contains(foreign.identity));
    }
    EXPECT_EQ(encodings, 0);
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreMigrationTests, APieceInAFolderBelowIsMigratedThere) {
    home.putFile("Loops/deep/er/piece.wav", wavBytes(samples));
    track = artifactAt(identity("focus", 3), FileURL::fromPath(folder / "deep/er/piece.wav"));
    auto store = opened();

    EXPECT_TRUE(store.migrateToLossless(track, encode));

    expectMigrated(store);
}

// A migration that works

TEST_F(LoopStoreMigrationTests, TheVerifiedLosslessFileTakesTheWAVFilesPlace) {
    auto store = opened();

    EXPECT_TRUE(store.migrateToLossless(track, encode));

    expectMigrated(store);
    EXPECT_THAT(discarded, ElementsAre(track.url));
    EXPECT_THAT(store.losslessMigrationCandidates(), IsEmpty());
    EXPECT_EQ(store.lastSaveError(), std::nullopt);
}

TEST_F(LoopStoreMigrationTests, TheEncoderWritesAHiddenFileBesideTheSource) {
    auto store = opened();
    FileURL from = track.url;
    FileURL to = track.url;

    store.migrateToLossless(track, [&](const FileURL& source, const FileURL& destination) {
        from = source;
        to = destination;
        encodeALAC(source, destination);
    });

    EXPECT_EQ(from.path(), wav());
    EXPECT_EQ(to.path(), folder / ("." + wav().filename().string() + ".migration.m4a"));
}

TEST_F(LoopStoreMigrationTests, TheStoreAnswersWhileTheEncoderIsAtWork) {
    auto store = opened();

    EXPECT_TRUE(store.migrateToLossless(track, [&](const FileURL& source, const FileURL& destination) {
        EXPECT_TRUE(store.contains(track.identity));
        store.add(trackNamed("meanwhile", identity("calm", 1, 99)));
        encodeALAC(source, destination);
    }));

    EXPECT_EQ(store.count(), 2U);
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, AValidLosslessFileThatIsThereIsAdoptedWithoutEncoding) {
    auto store = opened();
    writeALAC(m4a(), samples);

    EXPECT_TRUE(store.migrateToLossless(track, encode));

    EXPECT_EQ(encodings, 0);
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, AnInvalidLosslessFileThatIsThereIsDiscardedAndMadeAnew) {
    auto almost = samples;
    almost[17] ^= 1;
    const auto shorter = std::vector(samples.begin(), samples.end() - 2);
    const std::vector<std::function<void()>> targets = {
        [&] { home.putFile("Loops/" + m4a().filename().string(), "no audio"); },
        [&] { home.putFile("Loops/" + m4a().filename().string(), ""); },
        [&] { home.putFile("Loops/" + m4a().filename().string(), wavBytes(samples)); },
        [&] { writeALAC(m4a(), almost); },
        [&] { writeALAC(m4a(), shorter); },
        [&] { writeALAC(m4a(), samples, 44100); },
    };
    for (const auto& put : targets) {
        std::filesystem::remove_all(folder);
        static_cast<void>(trackNamed(identity("focus").filename(), track.identity));
        discarded.clear();
        encodings = 0;
        auto store = opened();
        put();

        EXPECT_TRUE(store.migrateToLossless(track, encode));

        EXPECT_EQ(encodings, 1);
        expectMigrated(store);
        EXPECT_THAT(discarded, ElementsAre(FileURL::fromPath(m4a()), track.url));
    }
}

TEST_F(LoopStoreMigrationTests, ATemporaryFileThatWasLeftOverIsDiscardedFirst) {
    auto store = opened();
    home.putFile("Loops/" + temporary().filename().string(), "half an encoding");

    EXPECT_TRUE(store.migrateToLossless(track, encode));

    expectMigrated(store);
    EXPECT_THAT(discarded, ElementsAre(FileURL::fromPath(temporary()), track.url));
}

TEST_F(LoopStoreMigrationTests, AMigrationThatStoppedBetweenCommitAndRemovalIsCompleted) {
    writeALAC(m4a(), samples);
    const auto migrated = track.withURL(FileURL::fromPath(m4a()));
    writeManifest(std::vector{migrated});
    auto store = open();

    EXPECT_TRUE(store.migrateToLossless(migrated, encode));

    EXPECT_EQ(encodings, 0);
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, ADamagedLosslessFileIsMadeAnewFromTheWAVFileBesideIt) {
    home.putFile("Loops/" + m4a().filename().string(), "damaged");
    const auto migrated = track.withURL(FileURL::fromPath(m4a()));
    writeManifest(std::vector{migrated});
    auto store = open();

    EXPECT_TRUE(store.migrateToLossless(migrated, encode));

    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, ThePieceNamesItsWAVFileOnDiskBeforeItsDamagedLosslessFileGoes) {
    home.putFile("Loops/" + m4a().filename().string(), "damaged");
    const auto migrated = track.withURL(FileURL::fromPath(m4a()));
    writeManifest(std::vector{migrated});
    std::vector<std::string> listed;
    LoopStore store(folder, ResourceBundle(home.path() / "App"), [&](const FileURL& url) {
        if (url.path() == m4a()) listed = listedURLs();
        return std::filesystem::remove(url.path());
    });

    EXPECT_TRUE(store.migrateToLossless(migrated, encode));

    EXPECT_EQ(listed, std::vector{track.url.text()});
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, ADamagedLosslessFileThatCannotBeDiscardedLeavesThePieceItsWAVFile) {
    home.putFile("Loops/" + m4a().filename().string(), "damaged");
    const auto migrated = track.withURL(FileURL::fromPath(m4a()));
    writeManifest(std::vector{migrated});
    LoopStore store(folder, ResourceBundle(home.path() / "App"),
                    [&](const FileURL& url) { return url.path() != m4a() && std::filesystem::remove(url.path()); });

    EXPECT_EQ(failureOf(store, encode, migrated), std::errc::file_exists);

    expectUntouched(store);
    EXPECT_EQ(home.content("Loops/" + m4a().filename().string()), "damaged");
}

TEST_F(LoopStoreMigrationTests, APieceProtectedWhileItsDamagedLosslessFileIsMadeAnewKeepsIt) {
    home.putFile("Loops/" + m4a().filename().string(), "damaged");
    const auto migrated = track.withURL(FileURL::fromPath(m4a()));
    writeManifest(std::vector{migrated});
    auto store = open();

    EXPECT_FALSE(store.migrateToLossless(migrated, [&](const FileURL& source, const FileURL& destination) {
        encodeALAC(source, destination);
        store.protectFromMigration({migrated.id()}, player);
    }));

    EXPECT_EQ(store.artifact(track.identity), migrated);
    EXPECT_EQ(listedURLs(), std::vector{migrated.url.text()});
    EXPECT_EQ(home.content("Loops/" + m4a().filename().string()), "damaged");
    EXPECT_FALSE(std::filesystem::exists(temporary()));
}

TEST_F(LoopStoreMigrationTests, APieceWhoseLosslessFileIsGonePlaysItsWAVFileWhenEncodingFails) {
    writeALAC(m4a(), samples);
    const auto migrated = track.withURL(FileURL::fromPath(m4a()));
    writeManifest(std::vector{migrated});
    auto store = open();
    std::filesystem::remove(m4a());

    EXPECT_EQ(failureOf(store, writing(tones(5, 2, 1000)), migrated), unconfirmed);

    expectUntouched(store);
}

TEST_F(LoopStoreMigrationTests, ADiscardThatThrowsWhatIsNoExceptionLeavesTheWAVFile) {
    writeManifest(std::vector{track});
    LoopStore store(folder, ResourceBundle(home.path() / "App"), [](const FileURL&) -> bool { throw 42; });

    EXPECT_TRUE(store.migrateToLossless(track, encode));

    EXPECT_EQ(store.artifact(track.identity), track.withURL(FileURL::fromPath(m4a())));
    EXPECT_TRUE(std::filesystem::exists(wav()));
}

TEST_F(LoopStoreMigrationTests, AWAVFileThatCannotBeDiscardedStaysAndIsRemovedTheNextTime) {
    auto store = opened();
    discards = false;
    EXPECT_TRUE(store.migrateToLossless(track, encode));
    EXPECT_TRUE(std::filesystem::exists(wav()));
    const auto migrated = track.withURL(FileURL::fromPath(m4a()));
    EXPECT_THAT(store.losslessMigrationCandidates(), ElementsAre(migrated));

    discards = true;
    EXPECT_TRUE(store.migrateToLossless(migrated, encode));

    EXPECT_EQ(encodings, 1);
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, AWAVFileThatAnotherPieceUsesStays) {
    const auto twin = artifactAt(identity("calm", 1, 8), track.url);
    writeManifest(std::vector{track, twin});
    auto store = open();

    EXPECT_TRUE(store.migrateToLossless(track, encode));
    EXPECT_TRUE(std::filesystem::exists(wav()));
    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_TRUE(store.migrateToLossless(twin, encode));

    EXPECT_EQ(encodings, 1);
    expectMigrated(store);
    EXPECT_EQ(store.artifact(twin.identity), twin.withURL(FileURL::fromPath(m4a())));
}

// Sources that are refused

TEST_F(LoopStoreMigrationTests, SourcesOfAnotherFormatAreRefusedAndStay) {
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"44.1 kHz", wavBytes(samples, 44100)},
        {"48.001 kHz", wavBytes(samples, 48001)},
        {"mono", wavBytes(samples, 48000, 1)},
        {"three channels", wavBytes(tones(1, 3, 100), 48000, 3)},
        {"8 bits", wavBytes(1, 8, 48000, 2, std::string(600, 'x'))},
        {"24 bits", wavBytes(1, 24, 48000, 2, std::string(600, 'x'))},
        {"32 bits", wavBytes(1, 32, 48000, 2, std::string(800, 'x'))},
        {"float", wavBytes(3, 32, 48000, 2, std::string(800, '\0'))},
        {"truncated", wavBytes(samples).substr(0, 40'000)},
        {"one byte short", wavBytes(samples).substr(0, wavBytes(samples).size() - 1)},
        {"header only", wavBytes(samples).substr(0, 44)},
        {"no audio in it", wavBytes(std::vector<std::int16_t>{})},
        {"half a header", wavBytes(samples).substr(0, 20)},
        {"empty", ""},
        {"text", "This is not audio at all, it is text."},
    };
    for (const auto& [what, bytes] : refused) {
        SCOPED_TRACE(what);
        std::filesystem::remove_all(folder);
        home.putFile("Loops/" + wav().filename().string(), bytes);
        auto store = opened();

        EXPECT_EQ(failureOf(store, encode), corrupt);

        EXPECT_EQ(home.content("Loops/" + wav().filename().string()), bytes);
        EXPECT_EQ(store.artifact(track.identity), track);
        EXPECT_EQ(listedURLs(), std::vector{track.url.text()});
    }
    EXPECT_EQ(encodings, 0);
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreMigrationTests, ALosslessFileUnderTheSourcesNameIsRefused) {
    std::filesystem::remove(wav());
    writeALAC(wav(), samples);
    auto store = opened();

    EXPECT_EQ(failureOf(store, encode), corrupt);
    expectUntouched(store);
}

TEST_F(LoopStoreMigrationTests, TwoEmptyFilesProveNothing) {
    home.putFile("Loops/" + wav().filename().string(), wavBytes(std::vector<std::int16_t>{}));
    writeALAC(m4a(), {});
    auto store = opened();

    EXPECT_EQ(failureOf(store, encode), corrupt);
    EXPECT_TRUE(std::filesystem::exists(wav()));
    EXPECT_EQ(store.artifact(track.identity), track);
}

TEST_F(LoopStoreMigrationTests, ASourceThatIsGoneIsTheSystemsError) {
    auto store = opened();
    std::filesystem::remove(wav());

    EXPECT_EQ(failureOf(store, encode), std::errc::no_such_file_or_directory);
    EXPECT_EQ(store.artifact(track.identity), track);
    EXPECT_EQ(encodings, 0);
}

// Encoders that fail or lie

TEST_F(LoopStoreMigrationTests, AnEncodersErrorIsPassedOnAndItsFileGoes) {
    auto store = opened();

    EXPECT_THROW(store.migrateToLossless(track,
                                         [&](const FileURL&, const FileURL& destination) {
                                             writeALAC(destination.path(), samples);
                                             throw std::domain_error("out of disk");
                                         }),
                 std::domain_error);

    expectUntouched(store);
    EXPECT_FALSE(std::filesystem::exists(m4a()));
    EXPECT_THAT(discarded, ElementsAre(FileURL::fromPath(temporary())));
}

TEST_F(LoopStoreMigrationTests, AnEncodingThatIsNotTheSourceIsFoundOut) {
    auto oneSample = samples;
    oneSample[23'456] ^= 1;
    auto firstSample = samples;
    firstSample[0] ^= 1;
    auto lastSample = samples;
    lastSample.back() ^= 1;
    auto swapped = samples;
    std::swap(swapped[100], swapped[101]);
    const std::vector<std::int16_t> frameShort(samples.begin(), samples.end() - 2);
    auto frameLong = samples;
    frameLong.insert(frameLong.end(), 2, 0);
    const auto elsewhere = home.path() / "other.m4a";
    writeALAC(elsewhere, samples);
    const auto whole = home.content("other.m4a");
    const auto putting = [&](std::string bytes) {
        return LoopStore::Encode([this, bytes = std::move(bytes)](const FileURL&, const FileURL& destination) {
            home.putFile("Loops/" + destination.path().filename().string(), bytes);
        });
    };
    const std::vector<std::pair<std::string, LoopStore::Encode>> lies = {
        {"one sample changed", writing(oneSample)},
        {"the first sample changed", writing(firstSample)},
        {"the last sample changed", writing(lastSample)},
        {"left and right swapped once", writing(swapped)},
        {"one frame short", writing(frameShort)},
        {"one frame more", writing(frameLong)},
        {"another rate", writing(samples, 44100)},
        {"one channel", writing(samples, 48000, 1)},
        {"another codec", putting(patched(whole, "stsd", "alac", "sowt"))},
        {"the WAV file itself", putting(wavBytes(samples))},
        {"a length that is not true", putting(patched(whole, "mdhd", bigEndian(20'001), bigEndian(20'000)))},
        {"half a file", putting(whole.substr(0, whole.size() / 2))},
        {"half the audio", putting(indexFirst(whole).substr(0, whole.size() / 2))},
        {"an empty file", putting("")},
        {"nothing", [](const FileURL&, const FileURL&) {}},
        {"a link to a good file",
         [&](const FileURL&, const FileURL& destination) {
             std::filesystem::create_symlink(elsewhere, destination.path());
         }},
        {"a folder",
         [](const FileURL&, const FileURL& destination) { std::filesystem::create_directory(destination.path()); }},
    };
    for (const auto& [what, lie] : lies) {
        SCOPED_TRACE(what);
        std::filesystem::remove_all(temporary());
        auto store = opened();

        EXPECT_EQ(failureOf(store, lie), unconfirmed);

        EXPECT_EQ(store.artifact(track.identity), track);
        EXPECT_EQ(listedURLs(), std::vector{track.url.text()});
        EXPECT_EQ(AudioPCM::digest(track.url), digest);
        EXPECT_FALSE(std::filesystem::exists(m4a()));
        EXPECT_FALSE(std::filesystem::is_regular_file(std::filesystem::symlink_status(temporary())));
    }
    EXPECT_EQ(home.content("other.m4a"), whole);
}

TEST_F(LoopStoreMigrationTests, AnEncoderThatDestroysItsSourceCostsNothingOnceItsFileIsProved) {
    auto store = opened();

    EXPECT_TRUE(store.migrateToLossless(track, [](const FileURL& source, const FileURL& destination) {
        encodeALAC(source, destination);
        std::filesystem::remove(source.path());
    }));

    expectMigrated(store);
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreMigrationTests, ASourceThatChangedMeanwhileIsNotDiscarded) {
    auto store = opened();
    auto newer = wavBytes(tones(9, 2, 30'000));

    EXPECT_TRUE(store.migrateToLossless(track, [&](const FileURL& source, const FileURL& destination) {
        encodeALAC(source, destination);
        home.putFile("Loops/" + wav().filename().string(), newer);
    }));

    EXPECT_EQ(home.content("Loops/" + wav().filename().string()), newer);
    EXPECT_EQ(AudioPCM::digest(FileURL::fromPath(m4a())), digest);
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreMigrationTests, AFileThatChangedHandsAfterItsVerificationIsNotTrusted) {
    // The invalid target is discarded between the verification and the move.
    home.putFile("Loops/" + m4a().filename().string(), "no audio");
    writeManifest(std::vector{track});
    LoopStore store(folder, ResourceBundle(home.path() / "App"), [&](const FileURL& url) {
        if (url.path() == m4a()) writeALAC(temporary(), tones(5, 2, 20'001));
        return std::filesystem::remove(url.path());
    });

    EXPECT_EQ(failureOf(store, encode), corrupt);

    expectUntouched(store);
}

// What stands in the way

TEST_F(LoopStoreMigrationTests, ALinkOrAFolderInTheTargetsPlaceIsLeftAlone) {
    home.putFile("precious.m4a", "precious");
    for (const bool isLink : {true, false}) {
        SCOPED_TRACE(isLink);
        std::filesystem::remove_all(m4a());
        if (isLink) {
            std::filesystem::create_symlink(home.path() / "precious.m4a", m4a());
        } else {
            std::filesystem::create_directory(m4a());
        }
        auto store = opened();

        EXPECT_EQ(failureOf(store, encode), std::errc::file_exists);

        expectUntouched(store);
        EXPECT_EQ(std::filesystem::is_symlink(m4a()), isLink);
    }
    EXPECT_EQ(home.content("precious.m4a"), "precious");
}

TEST_F(LoopStoreMigrationTests, ALinkToAGoodFileIsNotAdopted) {
    writeALAC(home.path() / "good.m4a", samples);
    std::filesystem::create_symlink(home.path() / "good.m4a", m4a());
    auto store = opened();

    EXPECT_EQ(failureOf(store, encode), std::errc::file_exists);

    expectUntouched(store);
}

TEST_F(LoopStoreMigrationTests, ALinkInTheTemporaryFilesPlaceIsNotWrittenThrough) {
    home.putFile("precious.m4a", "precious");
    std::filesystem::create_symlink(home.path() / "precious.m4a", temporary());
    auto store = opened();

    EXPECT_EQ(failureOf(store, encode), std::errc::file_exists);

    EXPECT_EQ(encodings, 0);
    EXPECT_EQ(home.content("precious.m4a"), "precious");
    EXPECT_EQ(store.artifact(track.identity), track);
    EXPECT_EQ(AudioPCM::digest(track.url), digest);
}

TEST_F(LoopStoreMigrationTests, ATargetThatAnotherPieceUsesIsNotReplaced) {
    writeALAC(m4a(), tones(5, 2, 1000));
    const auto owner = artifactAt(identity("calm", 1, 8), FileURL::fromPath(m4a()));
    const auto before = home.content("Loops/" + m4a().filename().string());
    writeManifest(std::vector{track, owner});
    auto store = open();

    EXPECT_EQ(failureOf(store, encode), std::errc::file_exists);

    expectUntouched(store);
    EXPECT_TRUE(home.content("Loops/" + m4a().filename().string()) == before);
}

TEST_F(LoopStoreMigrationTests, ATemporaryFileThatAPieceUsesIsNotReplaced) {
    home.putFile("Loops/" + temporary().filename().string(), "another piece");
    const auto owner = artifactAt(identity("calm", 1, 8), FileURL::fromPath(temporary()));
    writeManifest(std::vector{track, owner});
    auto store = open();

    EXPECT_EQ(failureOf(store, encode), std::errc::file_exists);

    EXPECT_EQ(home.content("Loops/" + temporary().filename().string()), "another piece");
    EXPECT_THAT(discarded, IsEmpty());
    EXPECT_EQ(store.artifact(track.identity), track);
}

TEST_F(LoopStoreMigrationTests, AnInvalidTargetThatCannotBeDiscardedStops) {
    home.putFile("Loops/" + m4a().filename().string(), "no audio");
    auto store = opened();

    // The temporary file cannot be discarded either: it is named in an error and goes the next time.
    discards = false;
    EXPECT_EQ(failureOf(store, encode), std::errc::file_exists);
    EXPECT_EQ(store.artifact(track.identity), track);
    EXPECT_EQ(AudioPCM::digest(track.url), digest);

    discards = true;
    EXPECT_TRUE(store.migrateToLossless(track, encode));
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, ANameTooLongForTheTemporaryFileIsTheSystemsError) {
    track = trackNamed(std::string(250, 'n'), identity("focus", 4));
    auto store = opened();

    EXPECT_EQ(failureOf(store, encode), std::errc::filename_too_long);
    EXPECT_EQ(store.artifact(track.identity), track);
    EXPECT_EQ(encodings, 0);
}

// What changes meanwhile

TEST_F(LoopStoreMigrationTests, APieceThatIsNotTheOneStoredIsNotMigrated) {
    auto store = opened();
    auto other = track;
    other.seconds += 1;

    EXPECT_FALSE(store.migrateToLossless(other, encode));
    EXPECT_FALSE(store.migrateToLossless(artifactAt(identity("nowhere"), track.url), encode));
    EXPECT_EQ(encodings, 0);
    expectUntouched(store);
}

TEST_F(LoopStoreMigrationTests, APieceProtectedWhileEncodingStaysAWAVFile) {
    auto store = opened();

    EXPECT_FALSE(store.migrateToLossless(track, [&](const FileURL& source, const FileURL& destination) {
        encodeALAC(source, destination);
        store.protectFromMigration({track.id()}, player);
    }));

    expectUntouched(store);
    EXPECT_THAT(discarded, IsEmpty());
    store.protectFromMigration({}, player);
    EXPECT_TRUE(store.migrateToLossless(track, encode));
    EXPECT_EQ(encodings, 0);  // what was verified then is adopted now
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, APieceMeasuredWhileEncodingKeepsItsMeasurement) {
    auto store = opened();
    const AudioLoudness loudness{.integratedLUFS = -20, .peak = 0.5, .seconds = 1};

    EXPECT_FALSE(store.migrateToLossless(track, [&](const FileURL& source, const FileURL& destination) {
        encodeALAC(source, destination);
        EXPECT_TRUE(store.setLoudness(loudness, track));
    }));

    track = track.withLoudness(loudness);
    expectUntouched(store);
}

TEST_F(LoopStoreMigrationTests, APieceRemovedWhileEncodingStaysRemovedAndLeavesNoFile) {
    const std::vector<std::function<std::size_t(LoopStore&)>> removals = {
        [](LoopStore& store) { return static_cast<std::size_t>(store.prune({})); },
        [](LoopStore& store) { return store.trash([](const LoopArtifact&) { return true; }).size(); },
    };
    for (const auto& remove : removals) {
        std::filesystem::remove_all(folder);
        static_cast<void>(trackNamed(identity("focus").filename(), track.identity));
        auto store = opened();

        EXPECT_FALSE(store.migrateToLossless(track, [&](const FileURL& source, const FileURL& destination) {
            encodeALAC(source, destination);
            EXPECT_EQ(remove(store), 1U);
        }));

        EXPECT_EQ(store.count(), 0U);
        EXPECT_THAT(listedURLs(), IsEmpty());
        EXPECT_THAT(namesBeginning(""), testing::UnorderedElementsAre(".lock", "manifest.json"));
    }
}

TEST_F(LoopStoreMigrationTests, APieceThatWentToAnotherFileWhileEncodingLeavesNoCopyOfTheOldOne) {
    auto store = opened();
    const auto better = trackNamed("better", track.identity);

    EXPECT_FALSE(store.migrateToLossless(track, [&](const FileURL& source, const FileURL& destination) {
        encodeALAC(source, destination);
        store.add(better);
    }));

    EXPECT_EQ(store.artifact(track.identity), better);
    EXPECT_FALSE(std::filesystem::exists(m4a()));
    EXPECT_FALSE(std::filesystem::exists(temporary()));
}

TEST_F(LoopStoreMigrationTests, ASecondMigrationOfThePieceMovesOnWhileTheFirstIsAtWork) {
    auto store = opened();

    EXPECT_TRUE(store.migrateToLossless(track, [&](const FileURL& source, const FileURL& destination) {
        encodeALAC(source, destination);
        EXPECT_FALSE(store.migrateToLossless(track, encode));
        EXPECT_TRUE(std::filesystem::exists(destination.path()));
    }));

    EXPECT_EQ(encodings, 0);
    expectMigrated(store);
    EXPECT_FALSE(store.migrateToLossless(track, encode));
}

TEST_F(LoopStoreMigrationTests, AfterAFailureThePieceMayBeTriedAgain) {
    auto store = opened();
    EXPECT_EQ(failureOf(store, [](const FileURL&, const FileURL&) {}), unconfirmed);

    EXPECT_TRUE(store.migrateToLossless(track, encode));
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, ManyThreadsMigrateManyPiecesTogether) {
    std::vector<LoopArtifact> tracks;
    for (std::int64_t seed = 0; seed < 6; ++seed) {
        samples = tones(static_cast<std::uint64_t>(seed), 2, 9000);
        tracks.push_back(trackNamed("track" + std::to_string(seed), identity("calm", 1, seed)));
    }
    std::vector<std::string> digests;
    for (const auto& each : tracks) digests.push_back(AudioPCM::digest(each.url));
    writeManifest(tracks);
    // Two threads may discard at once, but only under the store's lock.
    auto store = open();

    std::latch start(4);
    std::atomic<int> migrated = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                for (const auto& each : tracks) migrated += store.migrateToLossless(each, alacEncoder()) ? 1 : 0;
            });
        }
    }

    EXPECT_EQ(migrated, 6);
    EXPECT_THAT(store.losslessMigrationCandidates(), IsEmpty());
    for (std::size_t i = 0; i < tracks.size(); ++i) {
        EXPECT_EQ(AudioPCM::digest(store.artifact(tracks[i].identity)->url), digests[i]);
    }
}

// Cancelling

TEST_F(LoopStoreMigrationTests, CancellingBeforeTheDigestChangesNothing) {
    auto store = opened();
    std::stop_source stop;
    stop.request_stop();

    EXPECT_THROW(store.migrateToLossless(track, encode, stop.get_token()), CancellationError);

    EXPECT_EQ(encodings, 0);
    expectUntouched(store);
    EXPECT_FALSE(std::filesystem::exists(m4a()));
}

TEST_F(LoopStoreMigrationTests, CancellingWhileEncodingRemovesTheTemporaryFile) {
    auto store = opened();
    std::stop_source stop;

    EXPECT_THROW(store.migrateToLossless(
                     track,
                     [&](const FileURL& source, const FileURL& destination) {
                         encodeALAC(source, destination);
                         stop.request_stop();
                     },
                     stop.get_token()),
                 CancellationError);

    expectUntouched(store);
    EXPECT_FALSE(std::filesystem::exists(m4a()));
    EXPECT_THAT(discarded, ElementsAre(FileURL::fromPath(temporary())));
}

TEST_F(LoopStoreMigrationTests, AnEncoderThatNoticesTheCancellationItselfIsTheSame) {
    auto store = opened();
    std::stop_source stop;

    EXPECT_THROW(store.migrateToLossless(
                     track,
                     [&](const FileURL& source, const FileURL& destination) {
                         stop.request_stop();
                         alacEncoder(stop.get_token())(source, destination);
                     },
                     stop.get_token()),
                 CancellationError);

    expectUntouched(store);
}

TEST_F(LoopStoreMigrationTests, CancellingAfterTheMoveLeavesTheManifestAndTheSource) {
    // The invalid target is discarded last before the move: what comes next is the question before the commit.
    home.putFile("Loops/" + m4a().filename().string(), "no audio");
    writeManifest(std::vector{track});
    std::stop_source stop;
    LoopStore store(folder, ResourceBundle(home.path() / "App"), [&](const FileURL& url) {
        if (url.path() == m4a()) stop.request_stop();
        return std::filesystem::remove(url.path());
    });

    EXPECT_THROW(store.migrateToLossless(track, encode, stop.get_token()), CancellationError);

    expectUntouched(store);
    EXPECT_EQ(AudioPCM::digest(FileURL::fromPath(m4a())), digest);
}

// Saving

TEST_F(LoopStoreMigrationTests, AManifestThatCannotBeSavedLeavesThePieceAsItWas) {
    auto store = opened();
    const auto manifest = folder / "manifest.json";
    const auto aside = home.path() / "manifest.json";

    EXPECT_EQ(failureOf(store,
                        [&](const FileURL& source, const FileURL& destination) {
                            encodeALAC(source, destination);
                            std::filesystem::rename(manifest, aside);
                            std::filesystem::create_directory(manifest);
                        }),
              unconfirmed);

    EXPECT_NE(store.lastSaveError(), std::nullopt);
    EXPECT_EQ(store.artifact(track.identity), track);
    EXPECT_EQ(AudioPCM::digest(track.url), digest);
    EXPECT_THAT(discarded, IsEmpty());

    std::filesystem::remove(manifest);
    std::filesystem::rename(aside, manifest);
    EXPECT_TRUE(store.migrateToLossless(track, encode));
    expectMigrated(store);
}

TEST_F(LoopStoreMigrationTests, APieceThatNoManifestCanHoldKeepsItsWAVFile) {
    auto store = open();
    track.engineBuild = "\xFF";
    store.add(track);

    EXPECT_EQ(failureOf(store, encode), unconfirmed);

    EXPECT_EQ(store.artifact(track.identity), track);
    EXPECT_EQ(AudioPCM::digest(track.url), digest);
    EXPECT_THAT(discarded, IsEmpty());
}

TEST_F(LoopStoreMigrationTests, ALibraryThatAnotherProcessHoldsIsNotMigrated) {
    writeManifest(std::vector{track});
    const OtherProcess other(folder / ".lock");
    auto store = open();

    EXPECT_THROW(store.migrateToLossless(track, encode), LibraryInUse);

    EXPECT_EQ(encodings, 0);
    expectUntouched(store);
}

}  // namespace
}  // namespace quillmere::test
