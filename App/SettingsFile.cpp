#include "App/SettingsFile.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"
#include "QuillmereKit/Platform/ReplacedFile.hpp"
#include "QuillmereKit/Platform/UserFolders.hpp"

namespace quillmere::app {
namespace {

constexpr std::size_t mostBytes = std::size_t{1} << 20;

GenerationMode readMode(const JSONValue& value) {
    const auto mode = restoredMode(value.string());
    return mode ? *mode : decode<GenerationMode>(value);
}

GenerationSchedule readSchedule(const JSONValue& value) {
    const auto schedule = decode<GenerationSchedule>(value);
    if (!schedule.isValid()) throw JSONError("names no window of the day");
    return schedule;
}

RadioSet readRadio(const JSONValue& value) {
    auto radio = decode<RadioSet>(value);
    if (radio.count() == 0) throw JSONError("holds no mood");
    return radio;
}

void read(std::string_view name, const JSONValue& value, Settings& settings) {
    if (name == "horizon") settings.horizon = decode<Horizon>(value);
    if (name == "mode") settings.mode = readMode(value);
    if (name == "model") settings.model = decode<GenerationModel>(value);
    if (name == "pace") settings.pace = decode<GenerationPace>(value);
    if (name == "radio") settings.radio = readRadio(value);
    if (name == "schedule") settings.schedule = readSchedule(value);
}

std::string cannotBeRead(const std::filesystem::path& file, const Error& error) {
    return "The settings \"" + file.string() + "\" cannot be read, the defaults count: " + error.what();
}

/// The members of an object, as JSON; of a key given twice the first.
std::map<std::string, std::string, std::less<>> membersIn(std::string_view text) {
    std::map<std::string, std::string, std::less<>> members;
    const auto document = JSONDocument::parse(text);
    for (const auto& [key, value] : document.root().members()) members.try_emplace(std::string(key), value.text());
    return members;
}

std::string textOf(const std::map<std::string, std::string, std::less<>>& members) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    for (const auto& [key, value] : members) {
        writer.key(key);
        writer.raw(value);
    }
    writer.endObject();
    return writer.take();
}

}  // namespace

const std::vector<std::string>& SettingsFile::names() {
    static const std::vector<std::string> names = {"horizon", "mode", "model", "pace", "radio", "schedule"};
    return names;
}

std::filesystem::path SettingsFile::defaultFile() {
    const auto folder = UserFolders::configuration();
    if (!folder) throw Error("There is no home folder. Name a place with --home.");
    return *folder / "settings.json";
}

SettingsFile::SettingsFile(std::filesystem::path file) : file_(std::move(file)) {
    try {
        catchUp();
    } catch (const FileError& error) {
        choices_.problems.push_back(cannotBeRead(file_.path(), error));  // the first change asks again
    }
}

// What the members of the file mean.
SettingsFile::Choices SettingsFile::choices(Members members) const {
    Choices made;
    for (const auto& name : names()) {
        const auto found = members.find(name);
        if (found == members.end() || found->second == "null") continue;
        try {
            const auto document = JSONDocument::parse(found->second);
            read(name, document.root(), made.settings);
        } catch (const JSONError& error) {
            made.notUnderstood.insert(name);
            made.problems.push_back("The setting \"" + name + "\" in \"" + file().string() +
                                    "\" is not understood, its default counts: " + error.what());
        }
    }
    made.members = std::move(members);
    return made;
}

void SettingsFile::catchUp() {
    const auto take = [&](std::string_view text) {
        choices_ = choices(membersIn(text));
        isDamaged_ = false;
    };
    const auto noteDamage = [&](const Error& error) {
        choices_.problems = {cannotBeRead(file(), error)};
        isDamaged_ = true;
    };
    file_.catchUp(mostBytes, take, noteDamage);
}

void SettingsFile::reset(std::string_view name) {
    catchUp();
    if (choices_.members.contains(name) || file_.isUnsynced()) replace(name, std::nullopt);
}

// The right to replace the file, among all processes, and what it holds now.
std::shared_ptr<FolderLock> SettingsFile::beginChange() {
    const auto folder = file().parent_path();
    createFolders(folder);
    auto lock = replacedFile::lockFor(file());
    removeOldTemporaries(folder);
    catchUp();
    return lock;
}

void SettingsFile::keepWhatIsLost(std::string_view name) {
    if (!isDamaged_ && !choices_.notUnderstood.contains(name)) return;
    if (kept_ == file_.facts()) return;  // a change that failed has kept it
    const auto now = std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now());
    replacedFile::keep(file(), isDamaged_ ? "unreadable" : "before", now);
    kept_ = file_.facts();
}

void SettingsFile::replace(std::string_view name, std::optional<std::string> json) {
    precondition(std::ranges::find(names(), name) != names().end(), "there is no such setting");
    std::shared_ptr<FolderLock> lock;
    Choices next;
    std::string text;
    try {
        lock = beginChange();
        Members members = choices_.members;
        if (json) {
            members.insert_or_assign(std::string(name), std::move(*json));
        } else {
            members.erase(std::string(name));
        }
        next = choices(std::move(members));
        text = textOf(next.members);
        if (text.size() > mostBytes) throw FileError("write", file(), std::make_error_code(std::errc::file_too_large));
        keepWhatIsLost(name);
    } catch (const FileError& error) {
        throw error.notInPlace();  // whatever is in place here, the choice is not
    }
    // From here on nothing but the writing can fail.
    file_.write(text, [&]() noexcept {
        choices_ = std::move(next);
        isDamaged_ = false;
    });
}

}  // namespace quillmere::app
