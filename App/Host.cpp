#include "App/Host.hpp"

#include <algorithm>
#include <cstdio>
#include <system_error>

#include "App/CommandLine.hpp"
#include "App/ManifestFile.hpp"
#include "App/Terminal.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"

namespace quillmere::app {
namespace {

// What the host's verbs throw away through the store was made and replaced by the system itself (a cancelled render, a
// working folder): it is deleted. What the owner listened to goes to the trash, in the verb that says so.
LoopStore::Discard deleteOwn(const std::filesystem::path& folder) {
    return [own = OwnFolder(folder)](const FileURL& url) {
        try {
            const auto path = url.path();
            const auto facts = factsOf(path);
            if (facts && facts->kind == FileFacts::Kind::folder) return own.names(path) && removeFolder(path);
            return own.remove(path);
        } catch (const FileError&) {
            return false;
        }
    };
}

// An empty library and one whose list cannot be read must not look the same.
void warnOfUnreadableManifest(const LoopStore& store) {
    const auto problem = store.manifestProblem();
    if (!problem) return;
    Host::warn("The list of the library's pieces \"" + manifestFile(store.directory()).string() +
               "\" cannot be read: " + *problem + " 'quillmere library recover' tells what can be taken back.");
}

// What ships with the program could not be brought in.
void warnOfUnsavedSeeds(const LoopStore& store) {
    if (const auto error = store.lastSaveError()) Host::warn("The library could not be saved: " + *error);
}

std::filesystem::path defaultLibraryFolder() {
    const auto data = UserFolders::applicationData();
    if (!data) throw Error("There is no home folder. Name a place with --home.");
    return *data / "Loops";
}

bool hasSeeds() {
    const auto resources = ResourceBundle::main();
    return resources.resource("seeds", "json", "Loops") || resources.resource("seeds", "json");
}

}  // namespace

void Host::prepare() const {
    if (!home.empty()) UserFolders::moveTo(home);
}

std::filesystem::path Host::libraryFolder() const {
    const auto named = library.empty() ? defaultLibraryFolder() : std::filesystem::absolute(library);
    if (std::ranges::find(named, "..") == named.end()) return named.lexically_normal();
    // "link/.." is not where the link lies, but leads from where it ends.
    std::error_code error;
    auto place = std::filesystem::weakly_canonical(named, error);
    if (error) throw FileError("look at", named, error);
    return place;
}

const std::shared_ptr<LoopStore>& Host::open(LoopStore::Access access) {
    if (!store_) {
        store_ =
            std::make_shared<LoopStore>(libraryFolder(), ResourceBundle::main(), deleteOwn(libraryFolder()), access);
        warnOfUnreadableManifest(*store_);
        warnOfUnsavedSeeds(*store_);
    }
    return store_;
}

const std::shared_ptr<LoopStore>& Host::store() { return open(LoopStore::Access::writing); }

const std::shared_ptr<LoopStore>& Host::readingStore() {
    // The first start has music, whatever verb it is: what ships with the program comes in.
    const auto folder = libraryFolder();
    const bool isFirst = !store_ && library.empty() && !fileExists(folder / "manifest.json");
    if (isFirst && hasSeeds()) {
        const LoopStore seeding(folder, ResourceBundle::main(), deleteOwn(folder), LoopStore::Access::writing);
        warnOfUnsavedSeeds(seeding);
    }
    return open(LoopStore::Access::reading);
}

const std::shared_ptr<LoopStore>& Host::writableStore() {
    if (!lock_) {
        const auto folder = libraryFolder();
        createFolders(folder);
        // Shared with the store, which takes the same lock when it opens.
        lock_ = FolderLock::acquire(folder / ".lock");
    }
    return store();
}

DigestBook Host::digests(const LoopStore& store) {
    DigestBook book(store.directory());
    if (book.problem()) book = DigestBook(store.directory());  // what the disk did not give it may give now
    if (book.problem()) warn(*book.problem());
    return book;
}

SettingsFile& Host::settingsFile() {
    if (!settings_) {
        settings_.emplace();
        for (const auto& problem : settings_->problems()) warn(problem);
    }
    return *settings_;
}

SettingsFile& Host::presentSettings() {
    if (!settings_) settings_.emplace();
    settings_->catchUp();
    for (const auto& problem : settings_->problems()) warn(problem);
    return *settings_;
}

void Host::change(const std::function<void()>& change) {
    try {
        change();
    } catch (const FileError& error) {
        if (!error.isInPlace()) throw;
        fail(ExitCode::notSaved,
             std::string(error.what()) + ". The change is in place, but a power cut may still undo it.");
    }
}

std::shared_ptr<FolderLock> Host::lockData() {
    const auto data = UserFolders::applicationData();
    if (!data) throw Error("There is no home folder. Name a place with --home.");
    createFolders(*data);
    return replacedFile::acquireLock(*data / ".lock");
}

void Host::fail(ExitCode code, std::string_view message) {
    warn(message);
    exitCode = code;
}

void Host::warn(std::string_view message) { std::fprintf(stderr, "quillmere: %s\n", safeForTerminal(message).c_str()); }

void addHomeOption(Verb verb, Host& host) {
    verb.addOption("--home", host.home, "Keep everything in this folder instead of the user's own")
        .typeName("DIR")
        .check([](const std::string& text) { return text.empty() ? std::string("a folder is needed") : ""; });
}

void addLibraryOptions(Verb verb, Host& host) {
    addHomeOption(verb, host);
    verb.addOption("--library", host.library, "Keep the loop library in this folder")
        .typeName("DIR")
        .check([](const std::string& text) { return text.empty() ? std::string("a folder is needed") : ""; });
}

void addJSONOption(Verb verb, Host& host) { verb.addFlag("--json", host.json, "Print JSON"); }

}  // namespace quillmere::app
