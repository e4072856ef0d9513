#include "Fuzz/HostileLibrary.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/WAVFile.hpp"

namespace quillmere::fuzz {
namespace {

namespace fs = std::filesystem;

const std::string& shortAudio() {
    static const std::string bytes = [] {
        const auto file = sandbox() / "short.wav";
        WAVWriter writer(file, 48000, 2);
        writer.write(std::vector<std::int16_t>(32, 1000));
        writer.finish();
        return read(file);
    }();
    return bytes;
}

bool isRecord(std::string_view name) { return name.ends_with(".lock") || name.ends_with(".json"); }

// As a renderer names it that died.
constexpr const char* deadWork = "Render-01234567-89AB-4DEF-8123-456789ABCDEF";
constexpr const char* workWithFifo = "Render-01234567-89AB-4DEF-8123-456789ABCDE0";
constexpr const char* workWithLink = "Render-01234567-89AB-4DEF-8123-456789ABCDE1";

}  // namespace

// What is outside is made once: it is looked at after each use, and never changes.
const Tree& HostileLibrary::outside() const {
    static const Tree tree = [this] {
        const auto outside = home() / "Outside";
        for (const auto* name :
             {"sentinel.wav", "piece.wav", "manifest.json", "Render-1/.lock", "Render-1/audio.wav"}) {
            write(outside / name, "not the library's");
        }
        write(home() / "Loops-old" / "piece.wav", "not the library's");
        write(home() / "Loops.wav", "not the library's");
        write(outside / "empty", "");
        return treeOf(home());
    }();
    return tree;
}

HostileLibrary::HostileLibrary(std::string_view manifest) : manifest_(placed(manifest)) {
    require(!outside().empty(), "there is something outside");
    fs::remove_all(folder());
    for (const auto* name : {"piece.wav", "second.wav", "a b.wav", "UPPER.WAV", "done.wav", "sub/piece.wav"}) {
        write(folder() / name, shortAudio());
    }
    for (const auto* name : {"done.m4a", "damaged.wav", "Render-dead/.lock", "Render-dead/audio.wav", "digests.json",
                             "Moods.json", "saved.json", ".saved.lock", "manifest.before-2024-05-01T10-20-30Z.json"}) {
        write(folder() / name, name);
    }
    for (const auto* name : {".lock", "audio.wav"}) write(folder() / deadWork / name, "");
    for (const auto& name : {workWithFifo, workWithLink}) write(folder() / name / "audio.wav", name);
    require(::mkfifo((folder() / workWithFifo / ".lock").c_str(), 0600) == 0, "a fifo can be made");
    fs::create_symlink("../../Outside/empty", folder() / workWithLink / ".lock");
    fs::create_directories(folder() / "folder.wav");
    fs::create_symlink("../Outside/sentinel.wav", folder() / "link.wav");
    fs::create_symlink("../Outside/sentinel.wav", folder() / "piece.m4a");
    fs::create_symlink("../Outside/sentinel.wav", folder() / ".second.wav.migration.m4a");
    fs::create_symlink("../../Outside/sentinel.wav", folder() / "sub" / "link.wav");
    fs::create_directory_symlink("../Outside", folder() / "linked");
    fs::create_directory_symlink("../Outside/Render-1", folder() / "Render-linked");
    fs::create_symlink("nowhere", folder() / "dangling.wav");
    fs::create_symlink("loop.wav", folder() / "loop.wav");
    fs::create_symlink("/dev/zero", folder() / "device.wav");
    require(::mkfifo((folder() / "fifo.wav").c_str(), 0600) == 0, "a fifo can be made");
    write(folder() / "manifest.json", manifest_);

    inside_ = treeOf(folder());
    noteNamed();
}

void HostileLibrary::spoilLock(std::string_view word) {
    const auto lock = folder() / ".lock";
    if (word == "fifo") {
        require(::mkfifo(lock.c_str(), 0600) == 0, "a fifo can be made");
    } else if (word == "link") {
        fs::create_symlink("../Outside/empty", lock);
    } else if (word == "notes") {
        write(lock, "a person's own notes");
    } else if (word == "twin") {
        fs::create_hard_link(home() / "Outside" / "empty", lock);
    } else {
        return;
    }
    isLockSpoiled_ = word != "twin";
    inside_ = treeOf(folder());
}

std::string HostileLibrary::placed(std::string_view text) const {
    std::string result(text);
    for (const auto& [word, place] : {std::pair("$LOOPS", folder()), std::pair("$HOME", home())}) {
        for (auto start = result.find(word); start != std::string::npos; start = result.find(word, start)) {
            result.replace(start, std::string_view(word).size(), place.native());
            start += place.native().size();
        }
    }
    return result;
}

// By text and by where it really leads; more rather than less.
void HostileLibrary::noteNamed() {
    std::vector<LoopArtifact> pieces;
    try {
        pieces = JSONDocument::parse(manifest_).root().elements<LoopArtifact>();
    } catch (const JSONError&) {
        return;
    }
    for (const auto& piece : pieces) {
        const auto path = piece.url.path();
        std::error_code ignored;
        for (const auto& file : {standardPath(path), fs::weakly_canonical(path, ignored)}) {
            const auto folderOfIt = file.parent_path();
            named_.insert(file);
            named_.insert(folderOfIt / (file.stem().native() + ".m4a"));
            named_.insert(folderOfIt / (file.stem().native() + ".wav"));
        }
    }
}

LoopStore HostileLibrary::open() {
    return LoopStore(folder(), ResourceBundle(home() / "App"), [this](const FileURL& url) { return discard(url); });
}

LoopArtifact HostileLibrary::pieceAt(const FileURL& url, std::int64_t seed) {
    return {.identity = {.moodID = "deepcode",
                         .blend = BlendStep(2),
                         .calmPrompt = "calm",
                         .energeticPrompt = "energetic",
                         .seed = seed,
                         .model = "sa3_medium_mlx_v2",
                         .prompt = std::nullopt,
                         .audio = std::nullopt,
                         .recipe = 1},
            .url = url,
            .seconds = 1,
            .seamDB = std::nullopt,
            .quality = std::nullopt,
            .leadIn = std::nullopt,
            .engineBuild = std::nullopt,
            .origin = std::nullopt};
}

void HostileLibrary::requireOwn(const fs::path& file) const {
    require(file.is_absolute() && standardPath(file) == file, "a standard path is handed over");
    require(file.native().starts_with(folder().native() + "/"), "what is handed over is the library's own");
    require(fs::canonical(file.parent_path()) == file.parent_path(), "no link lies on the way to it");
}

bool HostileLibrary::discard(const FileURL& url) {
    const auto file = standardPath(url.path());
    requireOwn(file);
    const auto status = fs::symlink_status(file);
    require(fs::is_regular_file(status) || fs::is_directory(status), "a file or a working folder is discarded");
    require(fs::is_regular_file(status) || file.filename().native().starts_with("Render-"),
            "no folder but a working folder is discarded");
    require(!isRecord(file.filename().native()), "no record is discarded");
    if (fails_) throw std::runtime_error("refused");
    const bool isGone = !refuses_ && fs::remove_all(file) > 0;
    if (swaps_) swap();
    return isGone;
}

void HostileLibrary::encode(const FileURL& source, const FileURL& destination) {
    requireOwn(source.path());
    requireOwn(destination.path());
    require(fs::is_regular_file(fs::symlink_status(source.path())), "a file is encoded");
    require(!fs::exists(fs::symlink_status(destination.path())), "an encoder writes where nothing is");
    if (fails_) throw std::runtime_error("no encoder");
    if (swaps_) swap();
    if (fs::canonical(destination.path().parent_path()) != destination.path().parent_path()) {
        throw std::runtime_error("where it was to write is no longer the library's");
    }
    const int file = ::open(destination.path().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (file < 0) throw std::runtime_error("cannot be made");
    require(::write(file, "m4a", 3) == 3, "the sandbox can be written in");
    ::close(file);
}

// Links in the places of files and of a folder, as somebody with bad luck or bad intentions puts them there between a
// check and what follows it.
void HostileLibrary::swap() {
    if (std::exchange(isSwapped_, true)) return;
    std::error_code ignored;
    for (const auto* name : {"piece.wav", "second.wav", "done.m4a"}) {
        fs::remove(folder() / name, ignored);
        fs::create_symlink("../Outside/sentinel.wav", folder() / name, ignored);
    }
    fs::remove_all(folder() / "sub", ignored);
    fs::create_directory_symlink("../Outside", folder() / "sub", ignored);

    // From now on these are the links that must stay. What was there before is the somebody's doing.
    std::erase_if(inside_, [](const auto& entry) { return entry.first.starts_with("sub/"); });
    for (const auto* name : {"piece.wav", "second.wav", "done.m4a", "sub"}) {
        inside_[name] = "link " + fs::read_symlink(folder() / name).native();
    }
}

void HostileLibrary::apply(LoopStore& store, std::string_view word) {
    constexpr std::size_t most = 8;
    auto pieces = store.all();
    if (pieces.size() > most) pieces.erase(pieces.begin() + most, pieces.end());
    const auto ignoringFailure = [](const auto& action) {
        try {
            action();
        } catch (const Error&) {
            return;
        } catch (const std::runtime_error& error) {  // the encoder's own, handed on
            require(std::string_view(error.what()).size() > 0, "an error says what is wrong");
        }
    };
    if (word == "refuse") refuses_ = true;
    if (word == "fail") fails_ = true;
    if (word == "swap") swaps_ = true;
    if (word == "add") {
        store.add(pieceAt(FileURL::fromPath(folder() / "damaged.wav"), 1001));
        require(store.lastSaveError().has_value() == isLockSpoiled_, "a change is saved, or it is told");
        named_.insert(folder() / "damaged.wav");
    }
    if (word == "persist") {
        const auto piece = pieceAt(FileURL::fromPath(folder() / "damaged.wav"), 1002);
        isLockSpoiled_ ? ignoringFailure([&] { store.addPersistent(piece); }) : store.addPersistent(piece);
        named_.insert(folder() / "damaged.wav");
    }
    if (word == "loudness") {
        for (const auto& piece : store.loudnessCandidates()) {
            ignoringFailure([&] { store.setLoudness(AudioLoudness{}, piece); });
        }
        static_cast<void>(store.bytesOnDisk());
    }
    if (word == "migrate") {
        auto candidates = store.losslessMigrationCandidates();
        if (candidates.size() > most) candidates.erase(candidates.begin() + most, candidates.end());
        for (const auto& piece : candidates) {
            ignoringFailure([&] {
                store.migrateToLossless(piece, [&](const FileURL& from, const FileURL& to) { encode(from, to); });
            });
        }
    }
    if (word == "discard") {
        for (const auto& piece : pieces) {
            require(!store.discardUnstored(piece.url), "a file that a piece uses is not discarded");
        }
    }
    if (word == "trash") {
        bool isEven = false;
        store.trash([&](const LoopArtifact&) { return isEven = !isEven; });
    }
    if (word == "prune") {
        std::set<std::string> kept;
        if (!pieces.empty()) kept.insert(pieces.front().id());
        store.prune(kept);
    }
}

void HostileLibrary::requireUntouched() const {
    Tree now;
    Tree around = treeOf(home());
    constexpr std::string_view inside = "Loops/";
    std::erase_if(around, [&](auto& entry) {
        if (!entry.first.starts_with(inside)) return entry.first == "Loops";
        now[entry.first.substr(inside.size())] = std::move(entry.second);
        return true;
    });
    require(around == outside(), "nothing outside the library's folder changes");
    if (isLockSpoiled_) return require(now == inside_, "nothing changes in a library that cannot be locked");
    for (const auto& [name, what] : inside_) {
        const bool isDead = name.starts_with(deadWork);
        const bool isManifest = name == "manifest.json";
        if (isDead || isManifest) continue;
        const auto found = now.find(name);
        if (!what.starts_with("file ")) {
            require(found != now.end() && found->second == what, "links, folders and special files stay");
        } else if (isRecord(name) || !named_.contains(folder() / name)) {
            require(found != now.end() && found->second == what, "a file that the manifest does not name stays");
        } else {
            require(found == now.end() || found->second == what, "a file is not changed");
        }
    }
}

}  // namespace quillmere::fuzz
