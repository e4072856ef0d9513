#include "QuillmereKit/Library/LoopFolder.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <functional>
#include <future>
#include <set>
#include <utility>

#include "QuillmereKit/Library/UsedFiles.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"
#include "QuillmereKit/Platform/SystemCalls.hpp"
#include "QuillmereKit/Platform/UUID.hpp"

namespace quillmere {
namespace {

constexpr std::size_t manifestLimit = std::size_t{1} << 30;

// Why a manifest is kept aside; part of the copy's name.
constexpr std::string_view unreadable = "unreadable";
constexpr std::string_view before = "before";

// What stands for itself in a URL, without a second thought.
constexpr std::array<bool, 256> plainCharacters = [] {
    std::array<bool, 256> isPlain{};
    for (const char c : std::string_view("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.")) {
        isPlain[static_cast<unsigned char>(c)] = true;
    }
    return isPlain;
}();

// The names of a listing's regular files, to be asked for by the ten thousand: one flat table. Refers to the listing.
class RegularNames {
public:
    explicit RegularNames(const std::vector<FolderEntry>& listing) : slots_(std::bit_ceil(2 * listing.size() + 2)) {
        for (const auto& entry : listing) {
            if (entry.kind == FileFacts::Kind::regular) slots_[placeOf(entry.name)] = {hash(entry.name), entry.name};
        }
    }

    [[nodiscard]] bool contains(std::string_view name) const noexcept { return !slots_[placeOf(name)].isFree(); }

private:
    struct Slot {
        std::size_t hash = 0;
        std::string_view name;  // empty where the place is free: no file has an empty name

        [[nodiscard]] bool isFree() const noexcept { return name.empty(); }
    };

    static std::size_t hash(std::string_view name) noexcept { return std::hash<std::string_view>{}(name); }

    // Where the name stands, or the free place where it would.
    [[nodiscard]] std::size_t placeOf(std::string_view name) const noexcept {
        const std::size_t mask = slots_.size() - 1;
        const std::size_t wanted = hash(name);
        std::size_t place = wanted & mask;
        while (!slots_[place].isFree() && !(slots_[place].hash == wanted && slots_[place].name == name)) {
            place = (place + 1) & mask;
        }
        return place;
    }

    std::vector<Slot> slots_;  // at most half of them taken
};

// On a thread of its own, or on the caller's where there is none to be had.
constexpr auto asyncIfPossible = std::launch::async | std::launch::deferred;

// What is known of an entry's file. Only certain absence drops an entry: a disk that cannot answer proves nothing.
enum class Presence { regular, absent, unknown };

Presence presenceOf(const std::filesystem::path& file) {
    std::error_code error;
    const auto status = std::filesystem::status(file, error);
    switch (status.type()) {
        case std::filesystem::file_type::regular: return Presence::regular;
        case std::filesystem::file_type::none:
        case std::filesystem::file_type::unknown:
            return LoopFolder::meansNoFile(error) ? Presence::absent : Presence::unknown;
        default: return Presence::absent;  // nothing, or nothing that may be opened: a folder, a device, a fifo
    }
}

bool isRegular(const std::filesystem::path& place) {
    const auto facts = factsOf(place);
    return facts && facts->kind == FileFacts::Kind::regular;
}

// Only a lock file that is there says anything.
bool isFree(const std::filesystem::path& lockFile) { return isRegular(lockFile) && !FolderLock::isHeld(lockFile); }

// A lock, or a list: the user may keep the library where their moods, recipes and settings lie, or around it.
bool isRecordName(std::string_view name) noexcept { return name.ends_with(".lock") || name.ends_with(".json"); }

// The name that a renderer gives its working folder; a person may give theirs one that begins like it.
bool isWorkName(std::string_view name) {
    return name.starts_with(LoopFolder::workPrefix) && UUID::fromText(name.substr(LoopFolder::workPrefix.size()));
}

// One place for what nobody could act on: a folder that cannot be made, a leftover that cannot be removed.
template <class Action>
void ignoringFailure(const Action& action) {
    try {
        action();
    } catch (const std::exception&) {
        return;
    }
}

}  // namespace

LoopFolder::LoopFolder(std::filesystem::path path, bool isWritten)
    : files_(std::move(path)),
      manifestFile_(files_.path() / "manifest.json"),
      urlPrefix_(FileURL::fromPath(files_.path()).text() + "/") {
    if (isWritten) ignoringFailure([&] { createFolders(this->path()); });
    doubt_ = SyncDoubt::of(this->path());  // only of one that is there can others ask
    if (isWritten) lock_ = FolderLock::tryAcquire(lockFile());
}

std::optional<std::filesystem::path> LoopFolder::fileOf(const FileURL& url) {
    if (!url.isFile()) return std::nullopt;
    auto path = url.path();
    if (!path.is_absolute() || path.native().find('\0') != std::string::npos) return std::nullopt;
    return path;
}

// One comparison of texts, where a path would have to be taken apart.
std::optional<std::string_view> LoopFolder::plainName(const FileURL& url) const noexcept {
    const std::string_view text = url.text();
    if (!text.starts_with(urlPrefix_)) return std::nullopt;
    const auto name = text.substr(urlPrefix_.size());
    const auto isPlain = [](char c) { return plainCharacters[static_cast<unsigned char>(c)]; };
    if (name.empty() || name == "." || name == ".." || !std::ranges::all_of(name, isPlain)) return std::nullopt;
    return name;
}

bool LoopFolder::meansNoFile(const std::error_code& error) noexcept {
    return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory ||
           error == std::errc::too_many_symbolic_link_levels || error == std::errc::filename_too_long;
}

bool LoopFolder::isRegularFile(const FileURL& url) {
    const auto file = fileOf(url);
    return file && presenceOf(*file) == Presence::regular;
}

bool LoopFolder::isCertainlyThere(const FileURL& url) {
    const auto file = fileOf(url);
    if (!file) return false;
    const auto presence = presenceOf(*file);
    if (presence == Presence::unknown) throw FileError("look at", *file, std::make_error_code(std::errc::io_error));
    return presence == Presence::regular;
}

LoopTable::Place LoopFolder::placeOf(const FileURL& url) const {
    if (const auto name = plainName(url)) {
        return {.isInside = true, .isPlain = isRegular(path() / *name)};
    }
    const auto file = fileOf(url);
    return {.isInside = file && files_.names(*file), .isPlain = false};
}

std::filesystem::path LoopFolder::fileInside(const StoredLoop& loop) const {
    if (const auto name = plainName(loop.url)) return path() / *name;
    return standardPath(loop.url.path());
}

// What stands at a standard path inside the folder, if it is the folder's own file. The common case, a file directly in
// it, is one question: there is no way on which a link could lie.
std::optional<FileFacts> LoopFolder::factsOfOwn(const std::filesystem::path& file) const noexcept {
    if (isBookkeeping(file)) return std::nullopt;
    const auto& folder = path().native();
    const bool isDirect = file.native().starts_with(folder) && file.native().rfind('/') == folder.size();
    if (!isDirect) return files_.facts(file);
    const auto facts = factsOf(file);
    return facts && facts->kind == FileFacts::Kind::regular ? facts : std::nullopt;
}

bool LoopFolder::owns(const std::filesystem::path& file) const noexcept { return factsOfOwn(file).has_value(); }

std::uint64_t LoopFolder::sizeOfFiles(const LoopTable& table, const FileSizes& sizes) const {
    std::uint64_t bytes = 0;
    table.forEach([&](const StoredLoop& loop) {
        if (!loop.isInside) return;
        // Nearly all lie directly in the folder.
        const auto name = plainName(loop.url);
        const auto known = name && !isBookkeepingName(*name) ? sizes.of(*name) : std::nullopt;
        if (known) {
            bytes += *known;
        } else if (const auto facts = factsOfOwn(fileInside(loop))) {
            bytes += facts->size;
        }
    });
    return bytes;
}

template <class Use>
auto LoopFolder::withDoubt(const Use& use) const {
    const std::lock_guard lock(doubtMutex_);
    return use(*doubt_);
}

// Does what syncs; that a sync failed is known from then on.
template <class Action>
void LoopFolder::remembering(SyncDoubt::Reach reach, const Action& action) const {
    try {
        action();
    } catch (const FileError& error) {
        withDoubt([&](SyncDoubt& doubt) { doubt.remember(std::move(reach), error); });
        throw;
    }
}

void LoopFolder::remove(std::span<const std::filesystem::path> files) const {
    std::set<std::filesystem::path> folders;
    for (const auto& file : files) folders.insert(file.parent_path());
    for (const auto& file : files) {
        if (!isBookkeeping(file)) ignoringFailure([&] { files_.removeUnsynced(file); });
    }
    for (const auto& folder : folders) {
        ignoringFailure([&] { remembering(SyncDoubt::reachOfFolder(restOf(folder)), [&] { syncFolder(folder); }); });
    }
}

bool LoopFolder::bringIn(const std::filesystem::path& source, const std::filesystem::path& target) const {
    if (presenceOf(target) == Presence::regular) return true;
    if (!hasLock() || !isNothingAt(target)) return false;
    remembering(SyncDoubt::reachOfFile(restOf(target)), [&] { copyFile(source, target); });
    return true;
}

bool LoopFolder::isFinishedWork(const std::filesystem::path& place) const {
    const auto facts = factsOf(place);
    const bool isWork = place.parent_path() == path() && place.filename().native().starts_with(workPrefix) && facts &&
                        facts->kind == FileFacts::Kind::folder;
    if (!isWork) return false;
    try {
        const auto left = listFolder(place);
        return left.empty() || (left.size() == 1 && left.front().name == lockName && isFree(place / lockName));
    } catch (const FileError&) {
        return false;
    }
}

bool LoopFolder::isNothingAt(const std::filesystem::path& place) noexcept {
    std::error_code error;
    return std::filesystem::symlink_status(place, error).type() == std::filesystem::file_type::not_found;
}

void LoopFolder::sync(const FileURL& url) {
    const auto file = fileOf(url);
    if (!file || !files_.names(*file)) return;
    const auto place = standardPath(*file);
    const auto rest = restOf(place);
    const auto syncFolders = [&] {
        for (auto folder = place.parent_path(); folder != path(); folder = folder.parent_path()) syncFolder(folder);
        syncFolder(path());
    };
    try {
        if (!withDoubt([&](const SyncDoubt& doubt) { return doubt.isOf(rest); })) {
            try {
                remembering(SyncDoubt::reachOfFile(rest), [&] {
                    systemCalls::sync(files_.open(place).number(), place);
                    syncFolders();
                });
                return;
            } catch (const FileError& error) {
                if (error.step() != "fsync" && error.step() != "sync folder") throw;
            }
        }
        std::set<std::filesystem::path> renewed{rest};  // made before it is needed: memory may have run out by then
        remembering(SyncDoubt::reachOfFile(rest), [&] {
            files_.rewrite(place);
            syncFolders();
        });
        withDoubt([&](SyncDoubt& doubt) { doubt.forget(std::move(renewed)); });
    } catch (const FileError& error) {
        // Not its own. But a file that only could not be looked at must not pass for one that is safe.
        const bool isNotOwn = error.code() == std::errc::operation_not_permitted ||
                              error.code() == std::errc::no_such_file_or_directory ||
                              error.code() == make_error_code(FileFault::fileNotRegular);
        if (error.step() == "open" && isNotOwn) return;
        throw error.notInPlace();  // the file written anew may be, what is to name it is not
    }
}

void LoopFolder::move(const std::filesystem::path& from, const std::filesystem::path& to) {
    remembering(SyncDoubt::reachOfFile(restOf(to)), [&] { files_.move(from, to); });
}

void LoopFolder::moveAside(const std::filesystem::path& file, std::string_view reason, Date now) const {
    remembering(SyncDoubt::reachOfFolder(restOf(file).parent_path()), [&] {
        quillmere::moveAside(file, reason, now, [&](const auto& from, const auto& to) { files_.move(from, to); });
    });
}

// Of a file directly in the folder: the lock, the manifest, the digests and the copies of them. An entry that names one
// of them must not cost it.
bool LoopFolder::isBookkeepingName(std::string_view name) noexcept {
    return isRecordName(name) || name.starts_with("manifest.") || name.starts_with(digestsPrefix);
}

// In folders further down, only what nowhere is audio.
bool LoopFolder::isBookkeeping(const std::filesystem::path& file) const noexcept {
    const std::string_view place = file.native();
    const auto name = place.substr(place.rfind('/') + 1);
    const bool isDirect = place.size() == path().native().size() + 1 + name.size();
    return isDirect ? isBookkeepingName(name) : isRecordName(name);
}

std::optional<JSONDocument> LoopFolder::readManifest() {
    reasonToKeep_.reset();
    isUnread_ = false;
    refusal_.reset();
    problem_.reset();
    try {
        auto text = readFileIfPresent(manifestFile_, manifestLimit);
        if (text) return JSONDocument::parseInPlace(*std::move(text));
    } catch (const FileError& error) {
        reasonToKeep_ = unreadable;
        isUnread_ = true;
        // What is no file, or too large, is so the next time too.
        if (!replacedFile::isForGood(error)) refusal_ = error;
        problem_ = error.what();
    } catch (const JSONError& error) {
        reasonToKeep_ = unreadable;
        problem_ = error.what();
    }
    return std::nullopt;
}

bool LoopFolder::load(LoopTable& table) {
    // Beside the reading of a manifest that takes long. What comes into the folder meanwhile is looked for by its name.
    constexpr std::uint64_t largeSize = std::uint64_t{1} << 18;
    manifest_ = factsOf(manifestFile_);
    const bool isLarge = manifest_ && manifest_->size >= largeSize;
    auto listed = std::async(isLarge ? asyncIfPossible : std::launch::deferred, [this] {
        std::vector<FolderEntry> entries;
        ignoringFailure([&] { entries = listFolder(path()); });
        return entries;
    });
    auto manifest = readManifest();
    auto listing = listed.get();
    const RegularNames regular(listing);

    // An entry that is dropped would be gone for good; so would one that an ordinary save leaves out.
    bool isWhole = true;
    listsOutside_ = false;
    const auto place = [&](const FileURL& url) -> std::optional<LoopTable::Place> {
        const auto name = plainName(url);
        if (name && regular.contains(*name)) return LoopTable::Place{.isInside = true, .isPlain = true};
        const auto file = fileOf(url);
        if (!file || presenceOf(*file) == Presence::absent) return std::nullopt;
        const bool isInside = files_.names(*file);
        listsOutside_ = listsOutside_ || !isInside;
        return LoopTable::Place{.isInside = isInside, .isPlain = false};
    };
    try {
        if (manifest && !table.fill(manifest->root(), place)) isWhole = false;
        if (!isWhole && !reasonToKeep_) reasonToKeep_ = before;
    } catch (const JSONError& error) {
        reasonToKeep_ = unreadable;
        problem_ = error.what();
    }
    manifest.reset();

    listLocks_.clear();
    for (const auto& entry : listing) {
        const bool isLock = entry.name.starts_with('.') && entry.name.ends_with(lockName) && entry.name != lockName;
        if (isLock && entry.kind == FileFacts::Kind::regular) listLocks_.push_back(entry.name);
    }
    std::erase_if(listing, [](const FolderEntry& entry) {
        const bool isMigration = entry.name.starts_with(migrationPrefix) && entry.name.ends_with(migrationSuffix);
        const bool isFile = entry.kind == FileFacts::Kind::regular && (isTemporaryFileName(entry.name) || isMigration);
        const bool isWork = entry.kind == FileFacts::Kind::folder && isWorkName(entry.name);
        return !isFile && !isWork;
    });
    leftovers_ = std::move(listing);
    return reasonToKeep_ != unreadable;
}

void LoopFolder::cleanLeftovers(const LoopTable& table, const std::set<std::filesystem::path>& migrating) {
    if (!hasLock()) return;
    const auto leftovers = std::exchange(leftovers_, {});
    // Without a readable manifest nobody knows what the folder's files are for.
    if (reasonToKeep_ == unreadable) return;
    const bool isWhole = !reasonToKeep_;  // an entry that was dropped may name any of them but a temporary file
    const bool areListsAtRest =
        std::ranges::none_of(listLocks_, [&](const auto& name) { return FolderLock::isHeld(path() / name); });
    std::vector<std::filesystem::path> files;
    std::vector<std::filesystem::path> folders;
    std::vector<std::filesystem::path> empty;  // perhaps: what was in them went before the process did
    for (const auto& entry : leftovers) {
        const auto place = path() / entry.name;
        if (entry.kind == FileFacts::Kind::regular) {
            const bool isDead =
                isTemporaryFileName(entry.name) ? areListsAtRest : isWhole && !migrating.contains(place);
            if (isDead) files.push_back(place);
        }
        // A working folder without a lock file may be another program's: only a free lock proves that its run is over.
        if (entry.kind != FileFacts::Kind::folder || !isWhole) continue;
        if (isFree(place / lockName)) folders.push_back(place);
        if (isNothingAt(place / lockName)) empty.push_back(place);
    }
    if (files.empty() && folders.empty() && empty.empty()) return;

    // A piece may name its file by another way, through links in the folder or from outside.
    UsedFiles used(*this);
    table.forEach([&](const StoredLoop& loop) { used.add(loop); });
    if (used.doubt()) return;
    std::erase_if(files, [&](const auto& file) { return used.contains(file); });
    const auto isUsed = [&](const auto& folder) { return used.containsBelow(folder); };
    std::erase_if(folders, isUsed);
    std::erase_if(empty, isUsed);
    for (const auto& file : files) {
        ignoringFailure([&] { remembering(SyncDoubt::reachOfFolder({}), [&] { files_.remove(file); }); });
    }
    for (const auto& folder : folders) ignoringFailure([&] { files_.removeFolder(folder); });
    for (const auto& folder : empty) ignoringFailure([&] { files_.removeEmptyFolder(folder); });
}

void LoopFolder::takeLock() {
    createFolders(path());
    auto lock = FolderLock::acquire(lockFile());
    // The folder may be another one than at the start, or the first; what others know of this one counts from now on.
    auto doubt = SyncDoubt::of(path());
    {
        const std::lock_guard guard(doubtMutex_);
        doubt->takeIn(*doubt_);
        doubt_ = std::move(doubt);
    }
    lock_ = std::move(lock);
}

bool LoopFolder::isManifestForeign() const {
    const auto present = replacedFile::lookAt(manifestFile_);
    return present && present != manifest_;
}

void LoopFolder::save(std::string_view manifest, Scope scope) {
    if (manifest.size() > manifestLimit) {
        throw FileError("write", manifestFile_, std::make_error_code(std::errc::file_too_large));
    }
    // A manifest that somebody else put there since is not ours to lose.
    const auto present = replacedFile::lookAt(manifestFile_);
    const bool isForeign = present && present != manifest_;
    const bool losesEntries = scope == Scope::inside && listsOutside_;
    if ((isForeign || losesEntries) && !reasonToKeep_) reasonToKeep_ = before;
    const auto ofNames = SyncDoubt::reachOfFolder({});
    // Who tries again for as long as the disk is full must not push out the copies that count.
    if (reasonToKeep_ && present && present != kept_) {
        try {
            const auto now = std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now());
            remembering(ofNames, [&] { keepCopyAside(manifestFile_, *reasonToKeep_, now); });
        } catch (const FileError& error) {
            throw error.notInPlace();  // the copy may be, the manifest is not
        }
        kept_ = present;
    }
    reasonToKeep_.reset();
    if (losesEntries) listsOutside_ = false;
    const auto noteAsOurs = [&] {
        // Only what is new in it: who saves now in one way, now in the other, must not push out the copies that count.
        if (scope == Scope::all) listsOutside_ = std::exchange(isOutsideNew_, false) || listsOutside_;
        manifest_ = factsOf(manifestFile_);
        isUnread_ = false;  // what could not be read was replaced
    };
    try {
        remembering(ofNames, [&] { writeDurably(manifestFile_, manifest); });
    } catch (const FileError& error) {
        if (error.isInPlace()) noteAsOurs();
        throw;
    }
    noteAsOurs();
}

}  // namespace quillmere
