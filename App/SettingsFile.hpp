#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Generation/GenerationMode.hpp"
#include "QuillmereKit/Generation/GenerationModel.hpp"
#include "QuillmereKit/Generation/GenerationPace.hpp"
#include "QuillmereKit/Generation/GenerationSchedule.hpp"
#include "QuillmereKit/Generation/Horizon.hpp"
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
/// Keys that this program does not know, and values that it does not understand, stay in the file as they are. A file
/// that cannot be read, and one in which a value that was not understood gets another, is kept beside the new one
/// before the first write. Not thread-safe. Blocks on disk.
class SettingsFile {
public:
    /// The names of the settings, which are the keys in the file, in alphabetical order.
    static const std::vector<std::string>& names();

    /// The file in the user's configuration folder, which `--home` moves. Throws `Error` for a user without one.
    [[nodiscard]] static std::filesystem::path defaultFile();

    /// Reads the file. Never fails: a missing file holds no choice, and what is wrong with another, `problems` tells.
    explicit SettingsFile(std::filesystem::path file = defaultFile());

    [[nodiscard]] const std::filesystem::path& file() const noexcept { return file_; }

    [[nodiscard]] const Settings& settings() const noexcept { return settings_; }

    /// A sentence for each thing that could not be read; a setting named there has its default.
    [[nodiscard]] const std::vector<std::string>& problems() const noexcept { return problems_; }

    /// Makes a choice and writes the file durably. Throws `FileError`; file and settings are then as they were, unless
    /// the error says that the file is in place. `name` must be one of `names` and `value` of its type.
    template <class T>
    void set(std::string_view name, const T& value) {
        replace(name, encodeJSON(value, JSONWriter::Form::compact));
    }

    /// Takes a choice back, so that the default counts again; nothing is written if there was none. Throws as `set`.
    void reset(std::string_view name);

private:
    using Members = std::map<std::string, std::string, std::less<>>;  // key to value, as JSON

    void load();
    void replace(std::string_view name, std::optional<std::string> json);
    [[nodiscard]] bool isUnderstood(std::string_view name) const;

    std::filesystem::path file_;
    Members members_;
    Settings settings_;
    std::vector<std::string> problems_;
    std::vector<std::string> notUnderstood_;  // names of settings
    bool isUnreadable_ = false;
};

}  // namespace quillmere::app
