#include "App/SettingsFile.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"
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

Date now() { return std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now()); }

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

SettingsFile::SettingsFile(std::filesystem::path file) : file_(std::move(file)) { load(); }

void SettingsFile::load() {
    try {
        const auto text = readFileIfPresent(file_, mostBytes);
        if (!text) return;
        const auto document = JSONDocument::parse(*text);
        for (const auto& [key, value] : document.root().members()) {
            if (!members_.try_emplace(std::string(key), value.text()).second || value.isNull()) continue;
            try {
                read(key, value, settings_);
            } catch (const JSONError& error) {
                notUnderstood_.emplace_back(key);
                problems_.push_back("The setting \"" + std::string(key) + "\" in \"" + file_.string() +
                                    "\" is not understood, its default counts: " + error.what());
            }
        }
    } catch (const Error& error) {
        isUnreadable_ = true;
        problems_.push_back("The settings \"" + file_.string() +
                            "\" cannot be read, the defaults count: " + error.what());
    }
}

bool SettingsFile::isUnderstood(std::string_view name) const {
    return std::ranges::find(notUnderstood_, name) == notUnderstood_.end();
}

void SettingsFile::reset(std::string_view name) {
    if (members_.contains(name)) replace(name, std::nullopt);
}

void SettingsFile::replace(std::string_view name, std::optional<std::string> json) {
    precondition(std::ranges::find(names(), name) != names().end(), "there is no such setting");
    Members members = members_;
    if (json) {
        members.insert_or_assign(std::string(name), std::move(*json));
    } else {
        members.erase(members.find(name));
    }
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    for (const auto& [key, value] : members) {
        writer.key(key);
        writer.raw(value);
    }
    writer.endObject();
    const std::string text = writer.take();
    if (text.size() > mostBytes) throw FileError("write", file_, std::make_error_code(std::errc::file_too_large));

    createFolders(file_.parent_path());
    if (isUnreadable_) keepCopyAside(file_, "unreadable", now());
    if (!isUnderstood(name)) keepCopyAside(file_, "before", now());
    isUnreadable_ = false;
    std::erase(notUnderstood_, name);
    const auto follow = [&] {
        members_ = std::move(members);
        Settings settings;
        for (const auto& known : names()) {
            const auto found = members_.find(known);
            if (found == members_.end() || found->second == "null" || !isUnderstood(known)) continue;
            const auto document = JSONDocument::parse(found->second);
            read(known, document.root(), settings);
        }
        settings_ = std::move(settings);
    };
    try {
        writeDurably(file_, text);
    } catch (const FileError& error) {
        if (error.isInPlace()) follow();
        throw;
    }
    follow();
}

}  // namespace quillmere::app
