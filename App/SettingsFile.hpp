#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "App/KnownFile.hpp"
#include "QuillmereKit/Generation/GenerationMode.hpp"
#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Generation/GenerationPace.hpp"
#include "QuillmereKit/Generation/GenerationSchedule.hpp"
#include "QuillmereKit/Generation/Horizon.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/FolderLock.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Playback/RadioSet.hpp"

namespace quillmere::app {

/// The user's choices; where none was made, the defaults.
struct Settings {
    Horizon horizon = Horizon::oneHour;               ///< How much music to keep before it repeats.
    GenerationMode mode = GenerationMode::manual;     ///< When music is made.
    GenerationModel model = GenerationModel::medium;  ///< What makes it.
    GenerationPace pace = GenerationPace::fast;       ///< How hard the computer may work on it.
    std::optional<RadioSet> radio = std::nullopt;     ///< The moods that take turns.
    std::optional<GenerationSchedule> schedule = {};  ///< The daily window; one that is held is valid.

    friend bool operator==(const Settings&, const Settings&) = default;
};

/// The file "settings.json" in the user's configuration folder, and what it holds.
///
/// Keys that this program does not know, and values that it does not understand, stay in the file as they are. A
/// damaged file, and one in which a value that was not understood gets another, is kept beside the new one before it is
/// replaced. One that the disk would not give is read again before the first change, which fails if it still cannot be
/// read.
///
/// Where another program wrote the file since, a change alters what that one wrote, and nothing in it but the setting
/// in question. A lock on ".settings.lock" beside it keeps the changes of two programs apart: one that finds it held is
/// refused. Looking makes no files and needs no lock. Not thread-safe. Blocks on disk.
class SettingsFile {
public:
    /// The names of the settings, which are the keys in the file, in alphabetical order.
    static const std::vector<std::string>& names();

    /// The file in the user's configuration folder, which `--home` moves. Throws `Error` for a user without one.
    [[nodiscard]] static std::filesystem::path defaultFile();

    /// Reads the file. Never fails: a missing file holds no choice, and what is wrong with another, `problems` tells.
    explicit SettingsFile(std::filesystem::path file = defaultFile());

    [[nodiscard]] const std::filesystem::path& file() const noexcept { return file_.path(); }

    /// The choices as they were last read or written.
    [[nodiscard]] const Settings& settings() const noexcept { return choices_.settings; }

    /// A sentence for each thing that could not be read; a setting named there has its default.
    [[nodiscard]] const std::vector<std::string>& problems() const noexcept { return choices_.problems; }

    /// Takes in what another program wrote since, and a file that the disk would not give before: for who decides by
    /// the choices what to change. Where the file is gone or damaged, what is known of it stands. Throws `FileError`
    /// where it cannot be read now.
    void catchUp();

    /// Makes a choice and writes the file durably. Throws `LibraryInUse` while another process writes it, or
    /// `FileError`; the file is then as it was, unless the error says that the change is in place. `name` must be one
    /// of `names` and `value` of its type.
    template <class T>
    void set(std::string_view name, const T& value) {
        replace(name, encodeJSON(value, JSONWriter::Form::compact));
    }

    /// Takes a choice back, so that the default counts again; nothing is written if there was none. Throws as `set`.
    void reset(std::string_view name);

private:
    using Members = std::map<std::string, std::string, std::less<>>;  // key to value, as JSON

    struct Choices {
        Members members;
        Settings settings;
        std::vector<std::string> problems;
        std::set<std::string, std::less<>> notUnderstood;  // names of settings
    };

    [[nodiscard]] Choices choices(Members members) const;
    [[nodiscard]] std::shared_ptr<FolderLock> beginChange();
    void keepWhatIsLost(std::string_view name);
    void replace(std::string_view name, std::optional<std::string> json);

    KnownFile file_;
    Choices choices_;
    std::optional<FileFacts> kept_;  // the file of which a copy was kept last
    bool isDamaged_ = false;         // the file as it is known can never be read
};

}  // namespace quillmere::app
