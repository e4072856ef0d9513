#include "QuillmereKit/Library/LoopStore.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <limits>
#include <span>
#include <utility>

#include "QuillmereKit/Library/LoopStoreState.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileURL.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"
#include "QuillmereKit/Platform/Trash.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"

namespace quillmere {
namespace {

constexpr std::size_t seedListLimit = std::size_t{64} << 20;
constexpr std::string_view seedFolder = "Loops";

std::filesystem::path defaultDirectory() {
    const auto data = UserFolders::applicationData();
    if (!data) fatalError("the user has no folder for application data");
    return *data / "Loops";
}

std::filesystem::path directoryFrom(const std::optional<std::filesystem::path>& given) {
    precondition(!given || !given->empty(), "a loop store's folder has a path");
    return standardPath(std::filesystem::absolute(given ? *given : defaultDirectory()));
}

bool discardToTrash(const FileURL& url) {
    const auto file = LoopFolder::fileOf(url);
    return file && moveToTrash(*file);
}

std::optional<std::filesystem::path> bundled(const ResourceBundle& bundle, std::string_view name,
                                             std::string_view extension) {
    auto inFolder = bundle.resource(name, extension, seedFolder);
    return inFolder ? inFolder : bundle.resource(name, extension);
}

// The seed list of a bundle; none if there is no list, or it cannot be read.
std::vector<LoopStore::BundledSeed> seedsOf(const ResourceBundle& bundle) {
    try {
        const auto file = bundled(bundle, "seeds", "json");
        if (!file) return {};
        return JSONDocument::read(*file, seedListLimit).root().elements<LoopStore::BundledSeed>();
    } catch (const FileError&) {
        return {};
    } catch (const JSONError&) {
        return {};
    }
}

// Whether a mood's identifier can be part of the name of a file directly in the store's folder.
bool isPartOfFileName(std::string_view moodID) {
    return moodID != "." && moodID != ".." && moodID.find('/') == std::string_view::npos &&
           moodID.find('\0') == std::string_view::npos;
}

}  // namespace

template <>
LoopStore::BundledSeed decode<LoopStore::BundledSeed>(const JSONValue& value) {
    return {
        .file = value.member<std::string>("file"),
        .identity = value.member<LoopIdentity>("identity"),
        .seconds = value.member<double>("seconds"),
        .seamDB = value.optionalMember<double>("seamDB"),
        .quality = value.optionalMember<LoopQuality>("quality"),
        .leadIn = value.optionalMember<double>("leadIn"),
        .replaces = value.optionalMember<std::vector<std::string>>("replaces"),
    };
}

// MARK: the state that stores share

LoopStore::State::State(std::filesystem::path directory, Access access)
    : folder(std::move(directory), access == Access::writing) {
    folder.load(table);
    folder.cleanLeftovers(table, migrating);
}

std::shared_ptr<LoopStore::State> LoopStore::State::open(const std::filesystem::path& directory, Access access) {
    // Never destroyed: a shared store may be opened or closed while the process ends.
    static auto& mutex = *new std::mutex;
    static auto& states = *new std::vector<std::weak_ptr<State>>;

    std::shared_ptr<State> shared;
    {
        const std::lock_guard lock(mutex);
        std::erase_if(states, [](const auto& state) { return state.expired(); });
        for (const auto& weak : states) {
            auto state = weak.lock();
            std::error_code ignored;
            const bool isSame = state && (state->folder.path() == directory ||
                                          std::filesystem::equivalent(state->folder.path(), directory, ignored));
            if (isSame) {
                shared = std::move(state);
                break;
            }
        }
        if (!shared) {
            auto state = std::make_shared<State>(directory, access);
            states.push_back(state);
            return state;
        }
    }
    if (access == Access::writing) {
        const std::lock_guard lock(shared->mutex);
        shared->beginWriting();
    }
    return shared;
}

void LoopStore::State::putAll(std::span<LoopArtifact> artifacts) {
    Unsaved changes;
    std::vector<LoopTable::Item> items;
    items.reserve(artifacts.size());
    for (auto& artifact : artifacts) {
        const auto place = folder.placeOf(artifact.url);
        if (!place.isInside) folder.noteOutside();
        const auto key = LoopKey::of(artifact.identity);
        const auto* const listed = table.find(key);
        auto& inItsPlace = changes[key].listed;
        if (listed != nullptr && inItsPlace.empty()) inItsPlace.push_back(listed->artifact());
        items.push_back({std::move(artifact), place});
    }
    table.putAll(items);
    unsaved.merge(changes);  // what the manifest lists is known longer of those that are in there
    for (const auto& [key, change] : changes) unsaved.find(key)->second.wasRefused = false;
}

std::size_t LoopStore::State::remove(std::span<const LoopKey> keys) noexcept {
    const auto count = table.remove(keys);
    hasRemovals = hasRemovals || count > 0;
    return count;
}

void LoopStore::State::requireLock() {
    const bool hadLock = folder.hasLock();
    if (!hadLock) {
        folder.takeLock();
        try {
            if (folder.isManifestForeign()) folder.forgetManifest();
        } catch (const FileError&) {
            folder.forgetManifest();  // whether others wrote it is asked again before anything replaces it
            throw;
        }
    }
    if (folder.isManifestUnread()) {
        catchUp();
    } else if (!hadLock) {
        folder.cleanLeftovers(table, migrating);
    }
}

void LoopStore::State::beginWriting() {
    try {
        requireLock();
    } catch (const Error&) {
        // The first change asks again, and says so.
    }
}

// The library as it is on disk, with what this process has stored and could not save. Also for a manifest that could
// not be read at first: replaced unread it would be kept aside, but the user would find an empty library. One that the
// system refuses once more is left to the next change.
void LoopStore::State::catchUp() {
    LoopTable present;
    Unsaved changes;
    try {
        if (!folder.load(present)) {
            if (folder.refusal()) throw FileError(*folder.refusal());
            // A manifest that is damaged is kept aside before the next save; what is remembered is then all there is.
            return;
        }
        table.forEach([&](const StoredLoop& loop) {
            const auto unwritten = unsaved.find(loop.key);
            const bool isUnsaved = unwritten != unsaved.end();
            // Where both know the piece, only what was stored here since counts more than what was written, and not if
            // the other process has moved the piece to another file. A piece that only this one knows was removed by
            // the other, with its file, unless it was never written, or lies outside the folder: ordinary saves leave
            // those out.
            const auto* theirs = present.find(loop.key);
            bool isKept = false;
            if (theirs != nullptr) {
                isKept = isUnsaved && (theirs->url == loop.url || LoopFolder::isCertainlyThere(loop.url));
            } else {
                isKept = !loop.isInside ||
                         (isUnsaved && (unwritten->second.listed.empty() || LoopFolder::isCertainlyThere(loop.url)));
            }
            if (!isKept) return;
            if (isUnsaved) {
                auto& change = changes[loop.key];
                change.wasRefused = unwritten->second.wasRefused;
                if (theirs != nullptr) change.listed.push_back(theirs->artifact());
            }
            present.put({loop.artifact(), folder.placeOf(loop.url)});
        });
    } catch (...) {
        folder.forgetManifest();  // replaced unread, it would cost what others wrote
        throw;
    }
    table = std::move(present);
    unsaved = std::move(changes);
    folder.cleanLeftovers(table, migrating);
}

// Audio is durable before the manifest names it. Returns those unsaved pieces whose audio cannot be made so; why is
// noted. What failed once is written anew at each attempt, whole: of the pieces that an earlier save refused, no other
// is tried once one is refused again, and the next save begins behind that one.
LoopStore::State::Unsaved LoopStore::State::makeSafe(std::optional<LoopKey> needed, std::exception_ptr& failure) {
    Unsaved unsafe;
    bool isRefusedAgain = false;
    const auto attempt = [&](Unsaved::value_type& piece) {
        auto& [key, change] = piece;
        const auto* const loop = table.find(key);
        if (loop == nullptr) return;
        if (change.wasRefused && isRefusedAgain && key != needed) {
            unsafe.insert(piece);
            return;
        }
        try {
            folder.sync(loop->url);
        } catch (const FileError&) {
            if (std::exchange(change.wasRefused, true)) {
                isRefusedAgain = true;
                lastRefused = key;
            }
            if (key == needed) throw;
            if (!failure) failure = std::current_exception();
            unsafe.insert(piece);
        }
    };
    const auto start = lastRefused ? unsaved.upper_bound(*lastRefused) : unsaved.begin();
    std::for_each(start, unsaved.end(), attempt);
    std::for_each(unsaved.begin(), start, attempt);
    return unsafe;
}

// The table with what the manifest lists in the place of these pieces.
LoopTable LoopStore::State::listedInsteadOf(const Unsaved& unsafe) const {
    std::vector<LoopTable::Item> items;
    items.reserve(table.count());
    for (const auto* const loop : table.inOrder()) {
        const auto found = unsafe.find(loop->key);
        if (found == unsafe.end()) {
            items.push_back({loop->artifact(), {.isInside = loop->isInside, .isPlain = loop->isPlain}});
        } else {
            for (const auto& each : found->second.listed) items.push_back({each, folder.placeOf(each.url)});
        }
    }
    LoopTable listed;
    listed.putAll(items);
    return listed;
}

// What is still unsaved when the manifest is in place, but may not survive a power cut.
LoopStore::State::Unsaved LoopStore::State::onceWritten(const Unsaved& unsafe) const {
    Unsaved written = unsafe;
    for (const auto& [key, change] : unsaved) {
        const auto* const loop = table.find(key);
        if (loop != nullptr && !unsafe.contains(key)) written.emplace(key, Change{{loop->artifact()}, false});
    }
    return written;
}

template <class MakeText>
void LoopStore::State::write(LoopFolder::Scope scope, std::optional<LoopKey> needed, const MakeText& makeText) {
    Unsaved unsafe;
    std::exception_ptr failure;
    try {
        requireLock();
        unsafe = makeSafe(needed, failure);
        const bool hasNews = hasRemovals || unsafe.size() < unsaved.size();
        if (failure && !hasNews) std::rethrow_exception(failure);
        auto written = onceWritten(unsafe);  // made before it is needed: memory may have run out by then
        try {
            if (unsafe.empty()) {
                folder.save(makeText(table), scope);
            } else {
                auto listed = listedInsteadOf(unsafe);
                folder.save(makeText(listed), scope);
            }
        } catch (const FileError& error) {
            if (error.isInPlace()) unsaved = std::move(written);
            throw;
        }
    } catch (...) {
        saveFailure = std::current_exception();
        throw;
    }
    unsaved = std::move(unsafe);
    hasRemovals = false;
    saveFailure = failure;
}

void LoopStore::State::save(std::optional<LoopKey> needed) {
    write(LoopFolder::Scope::inside, needed, [](LoopTable& listed) -> const std::string& { return listed.manifest(); });
}

void LoopStore::State::savePretty(LoopKey needed) {
    write(LoopFolder::Scope::all, needed, [](const LoopTable& listed) { return listed.prettyManifest(); });
}

void LoopStore::State::saveIgnoringFailure() noexcept {
    try {
        save();
    } catch (const std::exception&) {
        // Noted by `save`.
    }
}

bool LoopStore::State::isSureOf(const UsedFiles& used) {
    if (!used.doubt()) return true;
    saveFailure = std::make_exception_ptr(
        Error(std::string("Nothing is removed, because a piece may use it. ") + used.doubt()->what()));
    return false;
}

bool LoopStore::State::tryDiscard(const Discard& discard, const FileURL& url) noexcept {
    try {
        return discard(url);
    } catch (...) {
        return false;
    }
}

bool LoopStore::State::tryDiscard(const Discard& discard, const std::filesystem::path& file,
                                  const FileURL& url) noexcept {
    try {
        return discard(url.path() == file ? url : FileURL::fromPath(file));
    } catch (...) {
        return false;
    }
}

bool LoopStore::State::mayChangeFiles() noexcept {
    try {
        requireLock();
        return true;
    } catch (const std::exception&) {
        saveFailure = std::current_exception();
        return false;
    }
}

void LoopStore::State::mergeSeeds(const ResourceBundle& bundle, Access access) {
    std::exception_ptr unread;
    try {
        if (folder.isManifestUnread()) catchUp();
    } catch (const FileError&) {
        unread = std::current_exception();
    }
    bool isChanged = false;
    std::exception_ptr failure;
    for (const auto& seed : seedsOf(bundle)) {
        const auto key = LoopKey::of(seed.identity);
        bundledIDs.insert(key);
        if (access == Access::reading) continue;
        if (unread) {
            failure = unread;  // the library may hold the piece, and know more of it
            continue;
        }
        if (table.find(key) == nullptr) {
            try {
                if (!importSeed(seed, bundle)) continue;
            } catch (const FileError&) {
                if (!failure) failure = std::current_exception();
                continue;
            }
            isChanged = true;
        }
        if (removeReplaced(seed, key)) isChanged = true;
    }
    if (isChanged) saveIgnoringFailure();
    // What was saved without these pieces is not all that was to be saved.
    if (failure && !saveFailure) saveFailure = failure;
}

// Whether there were pieces that the seed replaces. They are listed until it is itself.
bool LoopStore::State::removeReplaced(const BundledSeed& seed, LoopKey key) {
    bool hasRemoved = false;
    const auto unwritten = unsaved.find(key);
    for (const auto& fingerprint : seed.replaces.value_or(std::vector<std::string>{})) {
        const auto replaced = LoopKey::fromText(fingerprint);
        const auto* const loop = replaced && replaced != key ? table.find(*replaced) : nullptr;
        if (loop == nullptr) continue;
        hasRemoved = true;
        if (unwritten != unsaved.end()) {
            unwritten->second.listed.push_back(loop->artifact());
            table.remove(std::array{*replaced});
        } else {
            remove(std::array{*replaced});
        }
    }
    return hasRemoved;
}

// Whether the piece is in the table now. Throws `FileError` where its audio is there and could not be copied.
bool LoopStore::State::importSeed(const BundledSeed& seed, const ResourceBundle& bundle) {
    if (!isPartOfFileName(seed.identity.moodID)) return false;
    const auto audio = bundled(bundle, seed.file, "m4a");
    if (!audio) return false;
    const auto target = folder.path() / (seed.identity.filename() + ".m4a");
    try {
        if (!folder.bringIn(*audio, target)) return false;
    } catch (const FileError& error) {
        const bool isNoAudio = error.path() == *audio && (error.code() == std::errc::no_such_file_or_directory ||
                                                          error.code() == FileFault::fileNotRegular);
        if (isNoAudio) return false;
        throw;
    }
    put({.identity = seed.identity,
         .url = FileURL::fromPath(target),
         .seconds = seed.seconds,
         .seamDB = seed.seamDB,
         .quality = seed.quality,
         .leadIn = seed.leadIn,
         .engineBuild = std::nullopt,
         .origin = std::nullopt});
    return true;
}

// MARK: the store

const std::shared_ptr<LoopStore>& LoopStore::shared() {
    static const auto store = std::make_shared<LoopStore>(
        UserFolders::isAutomatedHarness()
            ? std::optional(UserFolders::temporary() / ("quillmere-loops-" + std::to_string(::getpid())))
            : std::nullopt);
    return store;
}

LoopStore::LoopStore(const std::optional<std::filesystem::path>& directory, const ResourceBundle& bundle,
                     Discard discard, Access access)
    : state_(State::open(directoryFrom(directory), access)), discard_(discard ? std::move(discard) : discardToTrash) {
    const std::lock_guard lock(state_->mutex);
    state_->mergeSeeds(bundle, access);
}

LoopStore::~LoopStore() = default;

const std::filesystem::path& LoopStore::directory() const noexcept { return state_->folder.path(); }

std::optional<LoopArtifact> LoopStore::artifact(const LoopIdentity& identity) const {
    const auto key = LoopKey::of(identity);
    const std::lock_guard lock(state_->mutex);
    const auto* loop = state_->table.find(key);
    return loop ? std::optional(loop->artifact()) : std::nullopt;
}

std::optional<LoopArtifact> LoopStore::artifact(std::string_view fingerprint) const {
    const auto key = LoopKey::fromText(fingerprint);
    if (!key) return std::nullopt;
    const std::lock_guard lock(state_->mutex);
    const auto* loop = state_->table.find(*key);
    return loop ? std::optional(loop->artifact()) : std::nullopt;
}

std::vector<LoopArtifact> LoopStore::all() const {
    const std::lock_guard lock(state_->mutex);
    std::vector<LoopArtifact> pieces;
    pieces.reserve(state_->table.count());
    for (const auto* loop : state_->table.inOrder()) pieces.push_back(loop->artifact());
    return pieces;
}

bool LoopStore::contains(const LoopIdentity& identity) const {
    const auto key = LoopKey::of(identity);
    const std::lock_guard lock(state_->mutex);
    return state_->table.find(key) != nullptr;
}

std::size_t LoopStore::count() const {
    const std::lock_guard lock(state_->mutex);
    return state_->table.count();
}

std::size_t LoopStore::count(std::string_view moodID) const {
    const std::lock_guard lock(state_->mutex);
    return state_->table.mood(moodID).size();
}

std::map<std::string, LoopStore::Material> LoopStore::material() const {
    std::map<std::string, Material> moods;
    const std::lock_guard lock(state_->mutex);
    state_->table.forEachMood([&](const std::string& moodID, std::span<const StoredLoop* const> loops) {
        double seconds = 0;
        for (const auto* loop : loops) {
            if (std::isfinite(loop->seconds) && loop->seconds > 0) seconds += loop->seconds;
        }
        moods[moodID] = {.pieces = loops.size(), .seconds = std::min(seconds, std::numeric_limits<double>::max())};
    });
    return moods;
}

void LoopStore::add(LoopArtifact artifact) {
    const std::lock_guard lock(state_->mutex);
    state_->put(std::move(artifact));
    state_->saveIgnoringFailure();
}

void LoopStore::add(std::vector<LoopArtifact> artifacts) {
    const std::lock_guard lock(state_->mutex);
    state_->putAll(artifacts);
    state_->saveIgnoringFailure();
}

void LoopStore::addPersistent(LoopArtifact artifact) {
    const std::lock_guard lock(state_->mutex);
    const auto key = LoopKey::of(artifact.identity);
    state_->put(std::move(artifact));
    state_->savePretty(key);
    // The others are saved even if this piece cannot be; its caller has to know.
    const auto* loop = state_->table.find(key);
    if (loop && !loop->isEncodable) static_cast<void>(encodeJSON(loop->artifact(), JSONWriter::Form::compact));
}

std::optional<LoopStore::UnstoredFile> LoopStore::unstoredFile(const FileURL& url) {
    const auto& folder = state_->folder;
    const auto file = LoopFolder::fileOf(url);
    if (!file || !folder.names(*file) || !state_->mayChangeFiles()) return std::nullopt;
    auto place = standardPath(*file);
    UsedFiles used(folder);
    state_->table.forEach([&](const StoredLoop& loop) { used.add(loop); });
    if (used.contains(place) || !state_->isSureOf(used)) return std::nullopt;
    const bool isFolderUsed = used.containsBelow(place.parent_path());
    return UnstoredFile{std::move(place), isFolderUsed};
}

bool LoopStore::moveUnstoredAside(const FileURL& url) {
    const std::lock_guard lock(state_->mutex);
    const auto found = unstoredFile(url);
    if (!found || !state_->folder.owns(found->place)) return false;
    const auto now = std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now());
    state_->folder.moveAside(found->place, "unlisted", now);
    return true;
}

bool LoopStore::discardUnstored(const FileURL& url) {
    const std::lock_guard lock(state_->mutex);
    const auto& folder = state_->folder;
    const auto found = unstoredFile(url);
    if (!found) return false;
    const auto& place = found->place;

    bool isRemoved = false;
    if (folder.owns(place)) isRemoved = State::tryDiscard(discard_, place, url);
    const auto parent = place.parent_path();
    if (!found->isFolderUsed && folder.isFinishedWork(parent)) {
        isRemoved = State::tryDiscard(discard_, FileURL::fromPath(parent)) || isRemoved;
    }
    return isRemoved;
}

std::set<std::string> LoopStore::bundledFingerprints() const {
    const std::lock_guard lock(state_->mutex);
    std::set<std::string> fingerprints;
    for (const auto key : state_->bundledIDs) fingerprints.insert(key.text());
    return fingerprints;
}

void LoopStore::protectFromMigration(const std::set<std::string>& fingerprints, const UUID& owner) {
    std::set<LoopKey> keys;
    for (const auto& fingerprint : fingerprints) {
        if (const auto key = LoopKey::fromText(fingerprint)) keys.insert(*key);
    }
    const std::lock_guard lock(state_->mutex);
    if (keys.empty()) {
        state_->playing.erase(owner);
    } else {
        state_->playing[owner] = std::move(keys);
    }
}

std::optional<std::string> LoopStore::manifestProblem() const {
    const std::lock_guard lock(state_->mutex);
    return state_->folder.manifestProblem();
}

std::optional<std::string> LoopStore::lastSaveError() const {
    const std::lock_guard lock(state_->mutex);
    if (state_->saveFailure) {
        try {
            std::rethrow_exception(state_->saveFailure);
        } catch (const std::exception& error) {
            return error.what();
        }
    }
    return state_->table.unencodableText();
}

}  // namespace quillmere
