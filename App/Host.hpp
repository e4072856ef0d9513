#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "App/DigestBook.hpp"
#include "App/ExitCode.hpp"
#include "App/SettingsFile.hpp"
#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"

namespace quillmere::app {

class Verb;

/// What every verb shares: the options that say where things live, and the stores opened there on first use.
class Host {
public:
    std::string home;     ///< `--home`: moves everything; empty for the user's folders.
    std::string library;  ///< `--library`: moves the loops alone; empty for the default folder.
    bool json = false;    ///< `--json`: machine-readable output.

    ExitCode exitCode = ExitCode::success;

    /// Applies `home`. Called once, after the command line was read and before any verb runs.
    void prepare() const;

    /// The loop library, opened on first use.
    [[nodiscard]] const std::shared_ptr<LoopStore>& store();

    /// The same for a verb that only looks: nothing is made, cleaned up or locked, so that others may write meanwhile.
    /// Only where there is no library yet at the default place, the pieces that ship with the program are brought in.
    [[nodiscard]] const std::shared_ptr<LoopStore>& readingStore();

    /// The same for a verb that changes the library. Throws `LibraryInUse` if another process holds it, before anything
    /// is done.
    [[nodiscard]] const std::shared_ptr<LoopStore>& writableStore();

    /// The digests of a library's pieces; what could not be read of them, asked twice, is then said on standard error.
    [[nodiscard]] static DigestBook digests(const LoopStore& store);

    /// The user's choices, read on first use; what could not be read of them is then said on standard error.
    [[nodiscard]] SettingsFile& settingsFile();

    /// The same for a verb that changes them: as the file holds them now. Throws `FileError` where it cannot be read,
    /// for what is not known is not to be replaced.
    [[nodiscard]] SettingsFile& presentSettings();

    /// Makes a change to the user's moods or settings. Where only the sync of its folder failed, the change is in
    /// place: that is said, the verb goes on, and the program will end with `notSaved`. Anything else that `change`
    /// throws passes through.
    void change(const std::function<void()>& change);

    /// The right to change the user's moods, recipes and settings, for as long as it is held: take it before the store
    /// in question is first used, so that nothing that another process writes meanwhile is lost. Throws `LibraryInUse`
    /// if another process holds it. Nothing on a file system that has no locks, where others may change them at once.
    [[nodiscard]] static std::shared_ptr<FolderLock> lockData();

    /// Where the loop library lies: absolute and made standard.
    [[nodiscard]] std::filesystem::path libraryFolder() const;

    /// Says on standard error why something failed and notes how the program will end.
    void fail(ExitCode code, std::string_view message);

    /// Says something on standard error that does not change how the program will end.
    static void warn(std::string_view message);

private:
    const std::shared_ptr<LoopStore>& open(LoopStore::Access access);

    std::shared_ptr<FolderLock> lock_;
    std::shared_ptr<LoopStore> store_;
    std::optional<SettingsFile> settings_;
};

/// The options `--home`, `--library` and `--json`, in every verb that takes them.
void addHomeOption(Verb verb, Host& host);
void addLibraryOptions(Verb verb, Host& host);
void addJSONOption(Verb verb, Host& host);

}  // namespace quillmere::app
