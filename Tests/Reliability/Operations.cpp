#include "Tests/Reliability/Operations.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "App/DigestBook.hpp"
#include "App/SettingsFile.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Platform/Descriptor.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"
#include "Tests/Library/LoopStoreFixture.hpp"
#include "Tests/Sharing/SampleRecipes.hpp"

#ifdef QUILLMERE_LOSSLESS
#include "QuillmereKit/Library/LosslessEncoder.hpp"
#endif

namespace quillmere::test {
namespace {

using nlohmann::json;
using std::filesystem::path;

constexpr Date noon{std::chrono::seconds(1'714'558'830)};

void put(const path& file, std::string_view content) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

template <class T>
std::string lineOf(const T& value) {
    return json::parse(encodeJSON(value, JSONWriter::Form::compact)).dump();
}

template <class T>
Lines linesOf(const std::vector<T>& values) {
    Lines lines;
    for (const auto& value : values) lines.push_back(lineOf(value));
    return lines;
}

/// A new file, as a program writes that leaves syncing to others.
void writeUnsynced(const path& file, std::string_view bytes) {
    const auto check = [&](bool holds, const char* step) {
        if (!holds) throw FileError(step, file, {errno, std::system_category()});
    };
    Descriptor descriptor(systemCalls::uninterrupted(
        [&] { return ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644); }));
    check(descriptor.isOpen(), "create");
    while (!bytes.empty()) {
        const auto written =
            systemCalls::uninterrupted([&] { return ::write(descriptor.number(), bytes.data(), bytes.size()); });
        check(written >= 0, "write");
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    check(!descriptor.close(), "close");
}

void require(bool holds, const char* what) {
    if (!holds) throw std::logic_error(what);
}

// MARK: pieces

LoopIdentity identity(const std::string& mood, std::int64_t seed) { return LoopStoreFixture::identity(mood, 2, seed); }

path fileOf(const path& home, const LoopIdentity& identity) { return home / "Loops" / (identity.filename() + ".wav"); }

LoopArtifact piece(const path& home, LoopIdentity identity) {
    const auto file = fileOf(home, identity);
    return LoopStoreFixture::artifactAt(std::move(identity), FileURL::fromPath(file));
}

std::string audio(const LoopIdentity& identity) {
    std::string bytes;
    while (bytes.size() < 5000) bytes += "the sound of " + identity.filename() + ", ";
    return bytes;
}

const LoopIdentity first = identity("rain", 1);
const LoopIdentity second = identity("rain", 2);
const LoopIdentity recorded = LoopStoreFixture::recording("rain", 3);
const LoopIdentity fresh = identity("rain", 4);
const LoopIdentity extra = identity("snow", 5);
const LoopIdentity theirs = identity("snow", 6);

std::string inLoops(const LoopIdentity& identity, const char* extension = ".wav") {
    return "Loops/" + identity.filename() + extension;
}

std::vector<LoopArtifact> listedPieces(const path& home) {
    std::vector<LoopArtifact> listed;
    for (const auto& each : {first, second, recorded}) listed.push_back(piece(home, each));
    std::ranges::sort(listed, {}, &LoopArtifact::id);
    return listed;
}

void putManifest(const path& home, const std::vector<LoopArtifact>& listed) {
    put(home / "Loops" / "manifest.json", encodeJSON(listed, JSONWriter::Form::compact));
}

/// Three pieces, a new one's audio, and a file that is nobody's.
void prepareLoops(const path& home) {
    for (const auto& each : {first, second, recorded, fresh}) put(fileOf(home, each), audio(each));
    put(home / "Loops" / "stranger.wav", "a stranger's");
    putManifest(home, listedPieces(home));
}

bool discard(const FileURL& url) {
    const auto place = url.path();
    const auto facts = factsOf(place);
    if (facts && facts->kind == FileFacts::Kind::folder) return removeFolder(place);
    return removeFile(place);
}

class LoopSession : public Session {
public:
    using Act = std::function<bool(LoopStore& store, const path& home)>;

    LoopSession(path home, Act act, LoopStore::Access access = LoopStore::Access::writing)
        : home_(std::move(home)), act_(std::move(act)), access_(access) {
        open();
    }

    /// One that opens the store only when it acts.
    struct Later {};
    LoopSession(path home, Act act, Later, LoopStore::Access access = LoopStore::Access::writing)
        : home_(std::move(home)), act_(std::move(act)), access_(access) {}

    void act() override {
        if (!store_) open();
        isDone_ = act_(*store_, home_);
    }
    [[nodiscard]] bool isSaved() const override { return isDone_ && !store_->lastSaveError(); }
    [[nodiscard]] std::optional<std::string> told() const override { return store_->lastSaveError(); }
    [[nodiscard]] bool isOpen() const override { return store_ != nullptr; }
    [[nodiscard]] Lines memory() const override { return linesOf(store_->all()); }
    void prepareChange() override {
        createFolders(home_ / "Loops");
        if (!std::filesystem::exists(fileOf(home_, extra))) writeUnsynced(fileOf(home_, extra), audio(extra));
    }
    void change() override {
        prepareChange();
        store_->addPersistent(piece(home_, extra));
        require(!store_->lastSaveError(), "what went wrong before is told still");
    }

private:
    void open() {
        store_ = std::make_unique<LoopStore>(home_ / "Loops", ResourceBundle(home_ / "App"), discard, access_);
    }

    path home_;
    Act act_;
    LoopStore::Access access_;
    std::unique_ptr<LoopStore> store_;
    bool isDone_ = false;
};

Operation onLoops(std::string name, LoopSession::Act act) {
    return {.name = std::move(name), .shelf = Shelf::loops, .prepare = prepareLoops, .begin = [act](const path& home) {
                return std::make_unique<LoopSession>(home, act);
            }};
}

Operation onOpening(std::string name, LoopSession::Act act, LoopStore::Access access = LoopStore::Access::writing) {
    auto operation = onLoops(std::move(name), {});
    operation.begin = [act, access](const path& home) {
        return std::make_unique<LoopSession>(home, act, LoopSession::Later{}, access);
    };
    operation.isOpening = true;
    return operation;
}

// MARK: what the loop store can be asked to do

Operation add() {
    auto operation = onLoops("Add", [](LoopStore& store, const path& home) {
        store.add(piece(home, fresh));
        return true;
    });
    operation.isUnsynced = {inLoops(fresh)};
    return operation;
}

Operation addPersistent() {
    auto operation = onLoops("AddPersistent", [](LoopStore& store, const path& home) {
        store.addPersistent(piece(home, fresh));
        return true;
    });
    operation.isUnsynced = {inLoops(fresh)};
    return operation;
}

Operation addSeveral() {
    static const std::vector<LoopIdentity> several = {fresh, identity("snow", 8), identity("snow", 9)};
    auto operation = onLoops("AddSeveral", [](LoopStore& store, const path& home) {
        std::vector<LoopArtifact> pieces;
        for (const auto& each : several) pieces.push_back(piece(home, each));
        store.add(std::move(pieces));
        return true;
    });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        for (const auto& each : several) put(fileOf(home, each), audio(each));
    };
    for (const auto& each : several) operation.isUnsynced.insert(inLoops(each));
    operation.isPiecemeal = true;
    return operation;
}

/// Its manifest is long enough to be read beside the listing of the folder; it is mostly blanks.
Operation openLargeLibrary() {
    auto operation = onOpening("OpenALargeLibrary", [](LoopStore& store, const path&) { return store.count() == 3; });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        auto manifest = readFile(home / "Loops/manifest.json", 1 << 20);
        manifest.insert(1, std::string(std::size_t{300} << 10, ' '));
        put(home / "Loops/manifest.json", manifest);
    };
    operation.changesNothing = true;
    operation.isDoneByAnyStart = true;
    return operation;
}

Operation addInNewFolder() {
    static const std::string place = "Loops/Render-9/fresh.wav";
    auto operation = onLoops("AddPersistentFromARenderersFolder", [](LoopStore& store, const path& home) {
        store.addPersistent(LoopStoreFixture::artifactAt(fresh, FileURL::fromPath(home / place)));
        return true;
    });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        put(home / place, audio(fresh));
    };
    operation.isUnsynced = {"Loops/Render-9/", place};
    return operation;
}

Operation replacePiece() {
    static const std::string place = "Loops/better.wav";
    auto operation = onLoops("ReplaceAPiece", [](LoopStore& store, const path& home) {
        store.addPersistent(LoopStoreFixture::artifactAt(first, FileURL::fromPath(home / place)));
        return true;
    });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        put(home / place, "a better sound");
    };
    operation.isUnsynced = {place};
    return operation;
}

Operation setLoudness() {
    auto operation = onLoops("SetLoudness", [](LoopStore& store, const path& home) {
        return store.setLoudness({.integratedLUFS = -20.5, .peak = 0.5, .seconds = 120}, piece(home, first));
    });
    operation.tellsByAnswer = true;
    return operation;
}

Operation prune() {
    auto operation =
        onLoops("Prune", [](LoopStore& store, const path&) { return store.prune({first.fingerprint()}) == 1; });
    operation.mayGo = {inLoops(second)};
    operation.tellsByAnswer = true;
    return operation;
}

/// What another process has written since a store was opened: a piece came, and one went.
void writeAsAnother(const path& home) {
    std::vector<LoopArtifact> listed = {piece(home, first), piece(home, recorded), piece(home, theirs)};
    put(fileOf(home, theirs), audio(theirs));
    std::filesystem::remove(fileOf(home, second));
    std::ranges::sort(listed, {}, &LoopArtifact::id);
    put(home / "Loops/manifest.json", encodeJSON(listed, JSONWriter::Form::compact));
}

/// A store that was opened to be read changes the library: it takes the lock, and what the other one wrote, first.
Operation late(Operation operation, std::string name, LoopSession::Act act) {
    operation.name = std::move(name);
    operation.begin = [act = std::move(act)](const path& home) {
        auto session = std::make_unique<LoopSession>(home, act, LoopStore::Access::reading);
        writeAsAnother(home);
        return session;
    };
    operation.isOpening = true;  // what the other one wrote is not in memory yet
    return operation;
}

Operation addLate() {
    return late(addPersistent(), "AddOverWhatAnotherProcessWrote", [](LoopStore& store, const path& home) {
        store.addPersistent(piece(home, fresh));
        return true;
    });
}

Operation pruneLate() {
    auto operation = late(prune(), "PruneWhatAnotherProcessWrote",
                          [](LoopStore& store, const path&) { return store.prune({first.fingerprint()}) == 1; });
    operation.mayGo = {inLoops(theirs)};
    return operation;
}

Operation setLoudnessLate() {
    return late(setLoudness(), "SetLoudnessOverWhatAnotherProcessWrote", [](LoopStore& store, const path& home) {
        return store.setLoudness({.integratedLUFS = -20.5, .peak = 0.5, .seconds = 120}, piece(home, first));
    });
}

Operation openToRead() {
    auto operation = onOpening(
        "OpenToRead", [](LoopStore& store, const path&) { return store.count() == 3; }, LoopStore::Access::reading);
    operation.changesNothing = true;
    operation.isDoneByAnyStart = true;
    return operation;
}

/// One piece's file is another's too, by a link: the second goes from the list, and the file stays.
Operation pruneLinked() {
    static const LoopIdentity linked = identity("rain", 11);
    static const std::string place = "Loops/linked.wav";
    auto operation = onLoops("PruneAPieceWhoseFileIsReachedThroughALinkAsWell", [](LoopStore& store, const path&) {
        return store.prune({first.fingerprint(), linked.fingerprint()}) == 1;
    });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        put(home / place, audio(second));
        auto list = json::parse(readFile(home / "Loops/manifest.json", 1 << 20));
        list.push_back(json::parse(lineOf(LoopStoreFixture::artifactAt(linked, FileURL::fromPath(home / place)))));
        put(home / "Loops/manifest.json", list.dump());
    };
    operation.begin = [begin = operation.begin](const path& home) {
        std::filesystem::remove(home / place);
        std::filesystem::create_symlink(fileOf(home, second).filename(), home / place);
        return begin(home);
    };
    operation.tellsByAnswer = true;
    return operation;
}

Operation trash() {
    auto operation = onLoops("Trash", [](LoopStore& store, const path&) {
        return store.trash([](const LoopArtifact& each) { return each.identity == second; }).size() == 1;
    });
    operation.mayGo = {inLoops(second)};
    operation.tellsByAnswer = true;
    return operation;
}

Operation trashLate() {
    auto operation = late(trash(), "TrashWhatAnotherProcessWrote", [](LoopStore& store, const path&) {
        return store.trash([](const LoopArtifact& each) { return each.identity == theirs; }).size() == 1;
    });
    operation.mayGo = {inLoops(theirs)};
    return operation;
}

bool discardRender(LoopStore& store, const path& home) {
    return store.discardUnstored(FileURL::fromPath(home / "Loops/Render-1/audio.wav"));
}

/// A render that was cancelled while the store was open.
Operation withCancelledRender(Operation operation) {
    operation.begin = [begin = operation.begin](const path& home) {
        auto session = begin(home);
        put(home / "Loops/Render-1/audio.wav", "cancelled");
        put(home / "Loops/Render-1/.lock", "");
        return session;
    };
    operation.mayGo = {"Loops/Render-1/audio.wav", "Loops/Render-1/"};
    operation.tellsByAnswer = true;
    return operation;
}

Operation discardUnstored() { return withCancelledRender(onLoops("DiscardUnstored", discardRender)); }

Operation discardUnstoredLate() {
    return withCancelledRender(late(onLoops({}, {}), "DiscardUnstoredBesideWhatAnotherProcessWrote", discardRender));
}

/// Music that no entry names stands where a new piece is to go.
Operation moveUnstoredAside() {
    static const std::string place = "Loops/fresh.wav";
    auto operation = onLoops("MoveUnstoredAside", [](LoopStore& store, const path& home) {
        return store.moveUnstoredAside(FileURL::fromPath(home / place));
    });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        put(home / place, "music whose entry was lost");
    };
    operation.goesAside = {place};
    operation.tellsByAnswer = true;
    return operation;
}

/// A piece whose file is outside the folder, listed for good until an ordinary save leaves it out; then a copy of the
/// list that names it is kept.
LoopArtifact pieceOutside(const path& home) {
    return LoopStoreFixture::artifactAt(identity("rain", 10), FileURL::fromPath(home / "Elsewhere/song.wav"));
}

Operation addAfterOneOutside(std::string name, bool isListedBefore) {
    auto operation = onLoops(std::move(name), [](LoopStore& store, const path& home) {
        store.add(piece(home, fresh));
        return true;
    });
    operation.prepare = [isListedBefore](const path& home) {
        prepareLoops(home);
        put(home / "Elsewhere/song.wav", "a song of the user's");
        if (isListedBefore) LoopStore(home / "Loops", ResourceBundle(home / "App")).addPersistent(pieceOutside(home));
    };
    if (!isListedBefore) {
        operation.begin = [begin = operation.begin](const path& home) {
            auto session = begin(home);
            LoopStore(home / "Loops", ResourceBundle(home / "App")).addPersistent(pieceOutside(home));
            return session;
        };
    }
    operation.isUnsynced = {inLoops(fresh)};
    operation.unlisted = [](const path& home) { return Lines{lineOf(pieceOutside(home))}; };
    return operation;
}

/// A piece that the application ships with, to take the place of the second one.
void putSeed(const path& home) {
    LoopIdentity seed = identity("rain", 7);
    const json list = {{{"file", "seed"},
                        {"identity", json::parse(encodeJSON(seed, JSONWriter::Form::compact))},
                        {"seconds", 60.0},
                        {"replaces", {second.fingerprint()}}}};
    put(home / "App/Loops/seeds.json", list.dump());
    put(home / "App/Loops/seed.m4a", audio(seed));
}

Operation importSeeds() {
    auto operation =
        onOpening("ImportSeeds", [](LoopStore& store, const path&) { return store.contains(identity("rain", 7)); });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        putSeed(home);
    };
    operation.mayCome = {inLoops(identity("rain", 7), ".m4a")};
    operation.isDoneByAnyStart = true;
    return operation;
}

const std::string deadTemporary = "Loops/.quillmere-01234567-89AB-4DEF-8123-456789ABCDEF.tmp";

const std::string deadWork = "Loops/Render-01234567-89AB-4DEF-8123-456789ABCDE2/";

Operation cleanLeftovers() {
    auto operation = onOpening("CleanLeftovers", [](LoopStore& store, const path&) { return store.count() == 3; });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        put(home / deadTemporary, "[half of a");
        put(home / (deadWork + ".lock"), "");
        put(home / (deadWork + "audio.wav"), "half a piece");
        put(home / "Loops/Render-01234567-89AB-4DEF-8123-456789ABCDE3/audio.wav",
            "without a lock file it may be another program's");
        put(home / "Loops/Render-holiday/.lock", "");
        put(home / "Loops/Render-holiday/song.wav", "a person's, whatever the folder is called");
    };
    operation.mayGo = {deadTemporary, deadWork + "audio.wav", deadWork};
    operation.isDoneByAnyStart = true;
    return operation;
}

Operation addFirst() {
    auto operation = onOpening("AddTheFirstPiece", [](LoopStore& store, const path& home) {
        writeUnsynced(fileOf(home, fresh), audio(fresh));
        store.addPersistent(piece(home, fresh));
        return true;
    });
    operation.prepare = [](const path&) {};
    operation.mayCome = {inLoops(fresh)};
    return operation;
}

Operation addOverDamage() {
    auto operation = addPersistent();
    operation.name = "AddOverADamagedManifest";
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        put(home / "Loops/manifest.json", "[{\"identity\": a torn write of somebody else's");
    };
    return operation;
}

Operation addOverForeign() {
    auto operation = onLoops("AddOverAManifestOfSomebodyElses", [](LoopStore& store, const path& home) {
        store.addPersistent(piece(home, fresh));
        return true;
    });
    operation.begin = [begin = operation.begin](const path& home) {
        auto session = begin(home);
        const auto manifest = home / "Loops/manifest.json";  // written anew while the store is open
        put(manifest, json::parse(readFile(manifest, 1 << 20)).dump(4));
        return session;
    };
    operation.isUnsynced = {inLoops(fresh)};
    return operation;
}

#ifdef QUILLMERE_LOSSLESS
void putMusic(const path& file) {
    std::vector<std::int16_t> samples(2 * 2400);
    for (std::size_t index = 0; index < samples.size(); ++index) {
        samples[index] = static_cast<std::int16_t>(12000 * std::sin(static_cast<double>(index) * 0.05));
    }
    std::filesystem::remove(file);
    WAVWriter writer(file, 48000, 2);
    writer.write(samples);
    writer.finish();
}

/// What the encoder makes of the music; made once, so that one run is like another.
const std::string& lossless() {
    static const std::string bytes = [] {
        const TemporaryFolder folder;
        putMusic(folder.path() / "music.wav");
        encodeALAC(FileURL::fromPath(folder.path() / "music.wav"), FileURL::fromPath(folder.path() / "music.m4a"));
        return folder.content("music.m4a");
    }();
    return bytes;
}

/// An encoder that leaves syncing to others.
void encodeUnsynced(const FileURL&, const FileURL& destination) { writeUnsynced(destination.path(), lossless()); }

bool migrateFirst(LoopStore& store, const path&, const LoopStore::Encode& encode) {
    const auto stored = store.artifact(first);
    return stored && store.migrateToLossless(*stored, encode);
}

Operation migrate() {
    auto operation = onLoops(
        "Migrate", [](LoopStore& store, const path& home) { return migrateFirst(store, home, encodeUnsynced); });
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        putMusic(fileOf(home, first));
        static_cast<void>(lossless());
    };
    operation.mayGo = {inLoops(first)};
    operation.mayCome = {inLoops(first, ".m4a")};
    operation.keepsAudio = true;
    operation.tellsByAnswer = true;
    return operation;
}

/// Another process has written since the store was opened to be read.
Operation migrateLate() {
    return late(migrate(), "MigrateBesideWhatAnotherProcessWrote",
                [](LoopStore& store, const path& home) { return migrateFirst(store, home, encodeUnsynced); });
}

Operation migrateForReal() {
    auto operation = migrate();
    operation.name = "MigrateWithTheEncoder";
    operation.begin = [](const path& home) {
        return std::make_unique<LoopSession>(home, [](LoopStore& store, const path& folder) {
            return migrateFirst(store, folder, [](const FileURL& from, const FileURL& to) { encodeALAC(from, to); });
        });
    };
    return operation;
}

Operation migrateOntoOldCopy() {
    auto operation = migrate();
    operation.name = "MigrateOverAHalfCopy";
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        putMusic(fileOf(home, first));
        put(home / inLoops(first, ".m4a"), lossless().substr(0, 300));
    };
    operation.begin = [begin = operation.begin](const path& home) {
        auto session = begin(home);  // which would clean it up
        put(home / ("Loops/." + first.filename() + ".wav.migration.m4a"), "half");
        return session;
    };
    operation.mayGo = {inLoops(first), inLoops(first, ".m4a"), "Loops/." + first.filename() + ".wav.migration.m4a"};
    return operation;
}

/// The first piece names `copy`, its lossless file, and the WAV file is still there.
void prepareMigrated(const path& home, std::string_view copy) {
    prepareLoops(home);
    putMusic(fileOf(home, first));
    put(home / inLoops(first, ".m4a"), copy);
    auto listed = listedPieces(home);
    for (auto& each : listed) {
        if (each.identity == first) each = each.withURL(FileURL::fromPath(home / inLoops(first, ".m4a")));
    }
    putManifest(home, listed);
}

Operation adoptLossless() {
    auto operation = migrate();
    operation.name = "MigrateAdoptingACopy";
    operation.prepare = [](const path& home) {
        prepareLoops(home);
        putMusic(fileOf(home, first));
        put(home / inLoops(first, ".m4a"), lossless());
    };
    operation.mayCome = {};
    operation.isUnsynced = {inLoops(first, ".m4a")};
    return operation;
}

/// A migration that stopped between its record and the removal of the WAV file.
Operation completeMigration() {
    auto operation = migrate();
    operation.name = "MigrateAPieceThatNamesItsCopy";
    operation.prepare = [](const path& home) { prepareMigrated(home, lossless()); };
    operation.mayCome = {};
    return operation;
}

/// The same, but what the manifest names is no proof of anything.
Operation mendMigration() {
    auto operation = migrate();
    operation.name = "MigrateAPieceThatNamesADamagedCopy";
    operation.prepare = [](const path& home) { prepareMigrated(home, lossless().substr(0, 300)); };
    operation.mayGo = {inLoops(first), inLoops(first, ".m4a")};
    operation.midway = [](const path& home) { return linesOf(listedPieces(home)); };
    return operation;
}
#endif

// MARK: moods

MoodSpec mood(const std::string& id, const std::string& name) {
    auto made = sampleSpec(id);
    made.name = name;
    return made;
}

class MoodSession : public Session {
public:
    using Act = std::function<void(CustomMoodStore& store)>;

    MoodSession(path folder, Act act, bool isLater = false)
        : file_(std::move(folder) / "Moods.json"), act_(std::move(act)) {
        if (!isLater) open();
    }
    void act() override {
        if (!store_) open();
        act_(*store_);
    }
    [[nodiscard]] bool isOpen() const override { return store_ != nullptr; }
    [[nodiscard]] Lines memory() const override { return linesOf(store_->all()); }
    void change() override { store_->save(mood("my-extra", "Extra")); }

private:
    void open() {
        store_ = std::make_unique<CustomMoodStore>(file_, [] { return noon; });
    }

    path file_;
    Act act_;
    std::unique_ptr<CustomMoodStore> store_;
};

Operation onMoods(std::string name, MoodSession::Act act, bool isLater = false) {
    return {.name = std::move(name),
            .shelf = Shelf::moods,
            .prepare =
                [](const path& home) {
                    CustomMoodStore store(home / "Data/Moods.json");
                    store.save(mood("my-1", "One"));
                    store.save(mood("my-2", "Two"));
                },
            .begin = [=](const path& home) { return std::make_unique<MoodSession>(home / "Data", act, isLater); },
            .isOpening = isLater};
}

/// A folder in which a link of this name leads to the file of that name in the home's data.
path folderWithALink(const path& home, const char* name) {
    auto folder = home / "Linked";
    std::filesystem::create_directories(folder);
    if (!std::filesystem::is_symlink(folder / name)) {
        std::filesystem::create_symlink(home / "Data" / name, folder / name);
    }
    return folder;
}

/// What the session holds is not what the file holds: another process has saved a mood since.
Operation onOthersMoods(std::string name, MoodSession::Act act) {
    auto operation = onMoods(std::move(name), std::move(act));
    operation.begin = [begin = operation.begin](const path& home) {
        auto session = begin(home);
        CustomMoodStore(home / "Data/Moods.json").save(mood("my-other", "Theirs"));
        return session;
    };
    operation.isOpening = true;
    return operation;
}

Operation onMoodsBehindALink(std::string name, MoodSession::Act act, bool isLater = false) {
    auto operation = onMoods(std::move(name), {}, isLater);
    operation.begin = [=](const path& home) {
        return std::make_unique<MoodSession>(folderWithALink(home, "Moods.json"), act, isLater);
    };
    return operation;
}

const std::string oldTemporary = "Data/.quillmere-01234567-89AB-4DEF-8123-456789ABCDEF.tmp";
const std::string newTemporary = "Data/.quillmere-01234567-89AB-4DEF-8123-456789ABCDE2.tmp";

/// Beside the store's file lies what a process left that died hours ago, and what one is writing now.
Operation besideTemporaries(Operation operation) {
    operation.begin = [begin = operation.begin](const path& home) {
        put(home / oldTemporary, "half of a");
        put(home / newTemporary, "the first half of a");
        std::filesystem::last_write_time(home / oldTemporary,
                                         std::filesystem::file_time_type::clock::now() - std::chrono::hours(2));
        return begin(home);
    };
    operation.mayGo = {oldTemporary};
    operation.isDoneByAnyStart = true;
    return operation;
}

Operation saveFirstMood() {
    auto operation = onMoods("SaveTheFirstMood", [](CustomMoodStore& store) { store.save(mood("my-3", "Three")); });
    operation.prepare = [](const path&) {};
    return operation;
}

Operation openDamagedMoods() {
    auto operation = onMoods(
        "OpenDamagedMoods", [](CustomMoodStore& store) { store.save(mood("my-3", "Three")); }, true);
    operation.prepare = [](const path& home) { put(home / "Data/Moods.json", "{\"moods\": [torn"); };
    operation.isExact = false;  // opening has moved the damaged file aside already when saving fails
    return operation;
}

// MARK: recipes

class VaultSession : public Session {
public:
    using Act = std::function<bool(RecipeVault& vault)>;

    VaultSession(path folder, Act act, bool isLater = false) : folder_(std::move(folder)), act_(std::move(act)) {
        if (!isLater) open();
    }
    void act() override {
        if (!vault_) open();
        isDone_ = act_(*vault_);
    }
    [[nodiscard]] bool isSaved() const override { return isDone_ && !vault_->lastSaveError(); }
    [[nodiscard]] std::optional<std::string> told() const override { return vault_->lastSaveError(); }
    [[nodiscard]] bool isOpen() const override { return vault_ != nullptr; }
    [[nodiscard]] Lines memory() const override { return linesOf(vault_->saved()); }
    void change() override {
        vault_->save(builtInRecipe(99));
        require(!vault_->lastSaveError(), "the vault is not saved");
    }

private:
    void open() { vault_ = std::make_unique<RecipeVault>(folder_); }

    path folder_;
    Act act_;
    std::unique_ptr<RecipeVault> vault_;
    bool isDone_ = false;
};

Operation onVault(std::string name, VaultSession::Act act, bool isLater = false) {
    return {.name = std::move(name),
            .shelf = Shelf::vault,
            .prepare =
                [](const path& home) {
                    RecipeVault vault(home / "Data");
                    vault.save(builtInRecipe(1));
                    vault.save(builtInRecipe(2));
                },
            .begin = [=](const path& home) { return std::make_unique<VaultSession>(home / "Data", act, isLater); },
            .isOpening = isLater};
}

Operation onOthersVault(std::string name, VaultSession::Act act) {
    auto operation = onVault(std::move(name), std::move(act));
    operation.begin = [begin = operation.begin](const path& home) {
        auto session = begin(home);
        RecipeVault(home / "Data").save(builtInRecipe(77));
        return session;
    };
    operation.isOpening = true;
    return operation;
}

Operation onVaultBehindALink(std::string name, VaultSession::Act act, bool isLater = false) {
    auto operation = onVault(std::move(name), {}, isLater);
    operation.begin = [=](const path& home) {
        return std::make_unique<VaultSession>(folderWithALink(home, "saved.json"), act, isLater);
    };
    return operation;
}

Operation saveFirstRecipe() {
    auto operation = onVault(
        "SaveTheFirstRecipe", [](RecipeVault& vault) { return vault.save(builtInRecipe(3)); }, true);
    operation.prepare = [](const path&) {};
    return operation;
}

Operation saveOverDamagedVault() {
    auto operation = onVault("SaveOverADamagedVault", [](RecipeVault& vault) { return vault.save(builtInRecipe(3)); });
    operation.prepare = [](const path& home) { put(home / "Data/saved.json", "{\"recipes\": [torn"); };
    return operation;
}

Operation importBundle() {
    const auto bytes = RecipeBundle{.recipes = {builtInRecipe(3), builtInRecipe(4), customRecipe()}}.encoded();
    return onVault("ImportABundle", [bytes](RecipeVault& vault) { return vault.importing(bytes).added.size() == 3; });
}

/// Of what is imported the other process has saved one already, which is in its list once.
Operation importBundleLate() {
    const auto bytes = RecipeBundle{.recipes = {builtInRecipe(3), builtInRecipe(77), customRecipe()}}.encoded();
    return onOthersVault("ImportABundleOverWhatAnotherProcessWrote",
                         [bytes](RecipeVault& vault) { return vault.importing(bytes).added.size() == 3; });
}

// MARK: one file

class FileSession : public Session {
public:
    explicit FileSession(const path& home) : file_(home / "list.json") {}
    void act() override { writeDurably(file_, "[\"new\"]"); }
    [[nodiscard]] Lines memory() const override { return linesIn(Shelf::file, readFile(file_, 1000)); }
    void change() override { writeDurably(file_, "[\"extra\"]"); }

private:
    path file_;
};

Operation onFile(std::string name, const std::string& old) {
    return {.name = std::move(name),
            .shelf = Shelf::file,
            .prepare =
                [old](const path& home) {
                    if (!old.empty()) put(home / "list.json", old);
                },
            .begin = [](const path& home) { return std::make_unique<FileSession>(home); }};
}

// MARK: the host's settings

class SettingsSession : public Session {
public:
    using Act = std::function<void(app::SettingsFile& settings)>;

    SettingsSession(const path& home, Act act, bool isLater = false)
        : file_(home / "Config/settings.json"), act_(std::move(act)) {
        if (!isLater) open();
    }
    void act() override {
        if (!settings_) open();
        act_(*settings_);
    }
    [[nodiscard]] bool isOpen() const override { return settings_.has_value(); }
    [[nodiscard]] Lines memory() const override {
        // By name, as in the file. What was not chosen has its default.
        const auto& held = settings_->settings();
        const app::Settings none;
        Lines lines;
        const auto note = [&](const char* name, const auto& value, const auto& ofNone) {
            if (value != ofNone) lines.push_back(json{{name, json::parse(lineOf(value))}}.dump());
        };
        note("horizon", held.horizon, none.horizon);
        note("mode", held.mode, none.mode);
        note("model", held.model, none.model);
        note("pace", held.pace, none.pace);
        return lines;
    }
    void change() override { settings_->set("horizon", Horizon::threeHours); }

private:
    void open() { settings_.emplace(file_); }

    path file_;
    Act act_;
    std::optional<app::SettingsFile> settings_;
};

Operation onSettings(std::string name, SettingsSession::Act act, bool isLater = false) {
    return {.name = std::move(name),
            .shelf = Shelf::settings,
            .prepare =
                [](const path& home) {
                    app::SettingsFile settings(home / "Config/settings.json");
                    settings.set("mode", GenerationMode::scheduled);
                    settings.set("model", GenerationModel::smallMusic);
                },
            .begin = [=](const path& home) { return std::make_unique<SettingsSession>(home, act, isLater); },
            .isOpening = isLater};
}

Operation onOthersSettings(std::string name, SettingsSession::Act act) {
    auto operation = onSettings(std::move(name), std::move(act));
    operation.begin = [begin = operation.begin](const path& home) {
        auto session = begin(home);
        app::SettingsFile others(home / "Config/settings.json");
        others.set("pace", GenerationPace::gentle);
        others.set("mode", GenerationMode::background);
        return session;
    };
    operation.isOpening = true;
    return operation;
}

Operation setFirstSetting() {
    auto operation = onSettings("SetTheFirstSetting",
                                [](app::SettingsFile& settings) { settings.set("pace", GenerationPace::gentle); });
    operation.prepare = [](const path&) {};
    return operation;
}

Operation setOverDamage() {
    auto operation = onSettings("SetASettingOverADamagedFile",
                                [](app::SettingsFile& settings) { settings.set("pace", GenerationPace::gentle); });
    operation.prepare = [](const path& home) { put(home / "Config/settings.json", "{\"pace\": torn"); };
    return operation;
}

// MARK: the host's digests

const std::vector<std::string> digested = {"0000000000000001", "0000000000000002", "0000000000000003",
                                           "0000000000000004", "0000000000000005"};
const std::string& extraDigested = digested.back();

std::string digestOf(const std::string& fingerprint) { return std::string(64, fingerprint.back()); }

/// As the verbs do it: in a library that is held.
class DigestSession : public Session {
public:
    using Act = std::function<void(app::DigestBook& book)>;

    DigestSession(const path& home, Act act, bool isLater = false)
        : store_(home / "Loops", ResourceBundle(home / "App"), discard), act_(std::move(act)) {
        if (!isLater) open();
    }
    void act() override {
        if (!book_) open();
        act_(*book_);
        save();
    }
    [[nodiscard]] bool isOpen() const override { return book_.has_value(); }
    [[nodiscard]] Lines memory() const override {
        Lines lines;
        for (const auto& fingerprint : digested) {
            const auto digest = book_->digest(fingerprint);
            if (digest) lines.push_back(json{{fingerprint, *digest}}.dump());
        }
        return lines;
    }
    void change() override {
        book_->set(extraDigested, digestOf(extraDigested));
        save();
    }

private:
    void open() { book_.emplace(store_.directory()); }
    void save() {
        book_->save([](const std::string&) { return true; });
    }

    LoopStore store_;
    Act act_;
    std::optional<app::DigestBook> book_;
};

Operation onDigests(std::string name, DigestSession::Act act, bool isLater = false) {
    return {.name = std::move(name),
            .shelf = Shelf::digests,
            .prepare =
                [](const path& home) {
                    std::filesystem::create_directories(home / "Loops");
                    app::DigestBook book(home / "Loops");
                    for (const auto& each : {digested[0], digested[1]}) book.set(each, digestOf(each));
                    book.save([](const std::string&) { return true; });
                },
            .begin = [=](const path& home) { return std::make_unique<DigestSession>(home, act, isLater); },
            .isOpening = isLater};
}

void noteDigest(app::DigestBook& book) { book.set(digested[2], digestOf(digested[2])); }

Operation noteOverOthersDigests() {
    auto operation = onDigests("NoteADigestOverWhatAnotherProcessWrote", noteDigest);
    operation.begin = [begin = operation.begin](const path& home) {
        auto session = begin(home);
        app::DigestBook others(home / "Loops");
        others.set(digested[3], digestOf(digested[3]));
        others.forget(digested[0]);
        others.save([](const std::string&) { return true; });
        return session;
    };
    operation.isOpening = true;
    return operation;
}

Operation noteFirstDigest() {
    auto operation = onDigests("NoteTheFirstDigest", noteDigest);
    operation.prepare = [](const path& home) { std::filesystem::create_directories(home / "Loops"); };
    return operation;
}

Operation noteOverDamage() {
    auto operation = onDigests("NoteADigestOverADamagedFile", noteDigest);
    operation.prepare = [](const path& home) { put(home / "Loops/digests.json", "{\"digests\": torn"); };
    return operation;
}

}  // namespace

const std::vector<Operation>& operations() {
    static const std::vector<Operation> all = {
        add(),
        addPersistent(),
        addSeveral(),
        openLargeLibrary(),
        addLate(),
        pruneLate(),
        setLoudnessLate(),
        trashLate(),
        discardUnstoredLate(),
        addAfterOneOutside("AddAfterAPieceOutsideTheFolder", false),
        addAfterOneOutside("AddToAListWithAPieceOutsideTheFolder", true),
        openToRead(),
        pruneLinked(),
        addInNewFolder(),
        replacePiece(),
        setLoudness(),
        prune(),
        trash(),
        discardUnstored(),
        moveUnstoredAside(),
        importSeeds(),
        cleanLeftovers(),
        addFirst(),
        addOverDamage(),
        addOverForeign(),
#ifdef QUILLMERE_LOSSLESS
        migrate(),
        migrateLate(),
        migrateForReal(),
        migrateOntoOldCopy(),
        adoptLossless(),
        completeMigration(),
        mendMigration(),
#endif
        onMoods("SaveAMood", [](CustomMoodStore& store) { store.save(mood("my-3", "Three")); }),
        onMoods("ReplaceAMood", [](CustomMoodStore& store) { store.save(mood("my-1", "Uno")); }),
        onMoods("RemoveAMood", [](CustomMoodStore& store) { store.remove("my-1"); }),
        onOthersMoods("SaveAMoodOverWhatAnotherProcessWrote",
                      [](CustomMoodStore& store) { store.save(mood("my-3", "Three")); }),
        onOthersMoods("RemoveAMoodFromWhatAnotherProcessWrote", [](CustomMoodStore& store) { store.remove("my-1"); }),
        onMoods(
            "OpenTheMoodsAndSave", [](CustomMoodStore& store) { store.save(mood("my-3", "Three")); }, true),
        onMoodsBehindALink("SaveAMoodBehindALink", [](CustomMoodStore& store) { store.save(mood("my-3", "Three")); }),
        onMoodsBehindALink(
            "OpenTheMoodsBehindALinkAndSave", [](CustomMoodStore& store) { store.save(mood("my-3", "Three")); }, true),
        besideTemporaries(onMoods(
            "OpenTheMoodsBesideTemporaries",
            [](CustomMoodStore& store) {
                if (store.all().size() != 2) throw Error("the moods could not be read");
            },
            true)),
        saveFirstMood(),
        openDamagedMoods(),
        onVault("SaveARecipe", [](RecipeVault& vault) { return vault.save(builtInRecipe(3)); }),
        onVault(
            "OpenTheVaultAndSave", [](RecipeVault& vault) { return vault.save(builtInRecipe(3)); }, true),
        onVault("RemoveARecipe", [](RecipeVault& vault) { return vault.remove(builtInRecipe(1).fingerprint); }),
        onOthersVault("SaveARecipeOverWhatAnotherProcessWrote",
                      [](RecipeVault& vault) { return vault.save(builtInRecipe(3)); }),
        onOthersVault("RemoveARecipeFromWhatAnotherProcessWrote",
                      [](RecipeVault& vault) { return vault.remove(builtInRecipe(1).fingerprint); }),
        onVaultBehindALink("SaveARecipeBehindALink", [](RecipeVault& vault) { return vault.save(builtInRecipe(3)); }),
        onVaultBehindALink(
            "OpenTheVaultBehindALinkAndSave", [](RecipeVault& vault) { return vault.save(builtInRecipe(3)); }, true),
        importBundle(),
        importBundleLate(),
        besideTemporaries(onVault(
            "OpenTheVaultBesideTemporaries", [](RecipeVault& vault) { return vault.count() == 2; }, true)),
        saveFirstRecipe(),
        saveOverDamagedVault(),
        onFile("WriteANewFile", ""),
        onFile("ReplaceAFile", "[\"old\"]"),
        onSettings("ChangeASetting",
                   [](app::SettingsFile& settings) { settings.set("mode", GenerationMode::background); }),
        onSettings("ResetASetting", [](app::SettingsFile& settings) { settings.reset("mode"); }),
        onOthersSettings("SetASettingOverWhatAnotherProcessWrote",
                         [](app::SettingsFile& settings) { settings.set("mode", GenerationMode::scheduled); }),
        onOthersSettings("ResetASettingThatAnotherProcessWrote",
                         [](app::SettingsFile& settings) { settings.reset("pace"); }),
        onSettings(
            "OpenTheSettingsAndSetOne",
            [](app::SettingsFile& settings) { settings.set("pace", GenerationPace::gentle); }, true),
        setFirstSetting(),
        setOverDamage(),
        onDigests("NoteADigest", noteDigest),
        onDigests("ForgetADigest", [](app::DigestBook& book) { book.forget(digested[0]); }),
        noteOverOthersDigests(),
        onDigests("OpenTheDigestsAndNoteOne", noteDigest, true),
        noteFirstDigest(),
        noteOverDamage(),
    };
    return all;
}

std::string mainFile(Shelf shelf) {
    switch (shelf) {
        case Shelf::loops: return "Loops/manifest.json";
        case Shelf::moods: return "Data/Moods.json";
        case Shelf::vault: return "Data/saved.json";
        case Shelf::file: return "list.json";
        case Shelf::settings: return "Config/settings.json";
        case Shelf::digests: return "Loops/digests.json";
    }
    return {};
}

namespace {

Lines parsedLines(Shelf shelf, const std::string& content) {
    const auto file = json::parse(content, nullptr, false);
    if (file.is_discarded()) return {unreadableLine};
    const json* list = &file;
    if (shelf == Shelf::moods) list = &file.at("moods");
    if (shelf == Shelf::vault) list = &file.at("recipes");
    if (shelf == Shelf::digests) list = &file.at("digests");
    Lines lines;
    for (const auto& [key, entry] : list->items()) {
        lines.push_back(list->is_object() ? json{{key, entry}}.dump() : entry.dump());
    }
    if (shelf == Shelf::loops) {
        // By fingerprint, as the store lists them: adding appends to the file.
        std::vector<std::pair<std::string, std::string>> sorted;
        for (auto& line : lines) sorted.emplace_back(decodeJSON<LoopArtifact>(line).id(), std::move(line));
        std::ranges::sort(sorted);
        std::ranges::transform(sorted, lines.begin(), [](auto& each) { return std::move(each.second); });
    }
    return lines;
}

}  // namespace

const Lines& linesIn(Shelf shelf, const std::string& content) {
    static std::map<std::pair<Shelf, std::string>, Lines> known;  // thousands of runs leave the same few files
    const auto [place, isNew] = known.try_emplace({shelf, content});
    if (isNew) place->second = parsedLines(shelf, content);
    return place->second;
}

std::unique_ptr<Session> reopen(Shelf shelf, const path& home) {
    switch (shelf) {
        case Shelf::loops: return std::make_unique<LoopSession>(home, LoopSession::Act{});
        case Shelf::moods: return std::make_unique<MoodSession>(home / "Data", MoodSession::Act{});
        case Shelf::vault: return std::make_unique<VaultSession>(home / "Data", VaultSession::Act{});
        case Shelf::file: return std::make_unique<FileSession>(home);
        case Shelf::settings: return std::make_unique<SettingsSession>(home, SettingsSession::Act{});
        case Shelf::digests: return std::make_unique<DigestSession>(home, DigestSession::Act{});
    }
    return nullptr;
}

std::string extraLine(Shelf shelf, const path& home) {
    switch (shelf) {
        case Shelf::loops: return lineOf(piece(home, extra));
        case Shelf::moods: return lineOf(mood("my-extra", "Extra"));
        case Shelf::vault: return lineOf(builtInRecipe(99));
        case Shelf::file: return "\"extra\"";
        case Shelf::settings: return R"({"horizon":"threeHours"})";
        case Shelf::digests: return json{{extraDigested, digestOf(extraDigested)}}.dump();
    }
    return {};
}

const std::string& audioOf(const std::string& line, const path& home) {
    static std::map<std::string, std::string> known;
    const auto [place, isNew] = known.try_emplace(line);
    if (isNew) {
        const auto url = FileURL::fromText(json::parse(line).at("url").get<std::string>());
        place->second = url.value().path().lexically_relative(home);
    }
    return place->second;
}

}  // namespace quillmere::test
