#include <algorithm>
#include <cstdio>
#include <future>
#include <map>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/MemoryPressure.hpp"
#include "App/MoodChoice.hpp"
#include "App/Output.hpp"
#include "App/Pieces.hpp"
#include "App/ScheduleState.hpp"
#include "App/Terminal.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Library/MaterialStatus.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/FileSizes.hpp"

namespace quillmere::app {
namespace {

struct Status {
    Settings settings;
    std::size_t pieces = 0;
    double seconds = 0;
    std::map<std::string, std::size_t> ready;  // by mood
    std::int64_t bytes = 0;
    ScheduleState schedule;
    std::optional<GenerationMemoryPressure> pressure;
    bool mayGenerate = true;
    std::optional<std::string> holder;  // of the library's lock
    std::optional<std::string> saveError;

    // As the player shows it; whoever holds the library is taken to be writing music.
    [[nodiscard]] std::string text(bool isPlaying) const {
        return MaterialStatus{
            .seconds = seconds, .horizon = settings.horizon, .isPlaying = isPlaying, .isWriting = holder.has_value()}
            .text();
    }
    [[nodiscard]] bool isSatisfied() const { return settings.horizon.isSatisfied(seconds); }
};

Status statusOf(Host& host) {
    Status status;
    status.settings = host.settingsFile().settings();
    // In a large library this takes nearly as long as the opening: beside it, if there is a thread to be had.
    auto sizes = std::async(std::launch::async | std::launch::deferred,
                            [folder = standardPath(host.libraryFolder())] { return FileSizes(folder); });
    const auto& store = *host.readingStore();
    const auto all = store.material();
    const auto isUsers = [](const std::string& moodID) { return moodID.starts_with(MoodSpec::idPrefix); };
    const bool hasUsers = std::ranges::any_of(all, [&](const auto& each) { return isUsers(each.first); });
    if (hasUsers) static_cast<void>(ownMoods());  // which of their pieces are ready depends on them
    for (const auto& [moodID, material] : all) {
        status.pieces += material.pieces;
        status.seconds += material.seconds;
        // Only a user's mood may have changed since its music was made.
        status.ready[moodID] = isUsers(moodID) ? store.playbackPool(moodID, std::nullopt, {}).size() : material.pieces;
    }
    constexpr double mostSeconds = 1e15;  // a stranger's manifest may hold any number
    status.seconds = std::min(status.seconds, mostSeconds);
    status.bytes = store.bytesOnDisk(sizes.get());
    status.schedule = ScheduleState::at(std::chrono::system_clock::now(), status.settings.schedule);
    status.pressure = presentMemoryPressure();
    status.mayGenerate = !status.pressure || permits(status.settings.pace, *status.pressure);
    const auto lock = store.directory() / ".lock";
    if (fileExists(lock) && FolderLock::isHeld(lock)) status.holder = FolderLock::holder(lock);
    status.saveError = store.lastSaveError();
    return status;
}

void printAsJSON(const Status& status) {
    const auto& settings = status.settings;
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.key("material");
    writer.beginObject();
    writer.member("text", status.text(false));
    writer.member("textWhilePlaying", status.text(true));
    writer.member("seconds", status.seconds);
    writer.member("pieces", static_cast<std::int64_t>(status.pieces));
    writer.member("bytes", status.bytes);
    writer.key("ready");
    writer.beginObject();
    for (const auto& [moodID, count] : status.ready) writer.member(moodID, static_cast<std::int64_t>(count));
    writer.endObject();
    writer.endObject();

    writer.key("horizon");
    writer.beginObject();
    writer.member("value", settings.horizon);
    writer.member("label", settings.horizon.label());
    writer.member("note", settings.horizon.note());
    writer.member("isSatisfied", status.isSatisfied());
    writer.endObject();

    writer.key("mode");
    writer.beginObject();
    writer.member("value", settings.mode);
    writer.member("label", label(settings.mode));
    writeMembers(writer, status.schedule, settings.schedule);
    writer.endObject();

    writer.key("pace");
    writer.beginObject();
    writer.member("value", settings.pace);
    writer.member("label", label(settings.pace));
    writer.member("detail", detail(settings.pace));
    if (status.pressure) writer.member("memoryPressure", text(*status.pressure));
    writer.member("mayGenerate", status.mayGenerate);
    writer.endObject();

    if (settings.radio) writer.member("radio", settings.radio->summary());
    writer.member("inUseBy", status.holder);
    writer.member("lastSaveError", status.saveError);
    writer.endObject();
    printJSON(writer);
}

void line(const char* name, const std::string& text) { std::printf("%-9s %s\n", name, safeForTerminal(text).c_str()); }

void printAsText(const Status& status) {
    const auto& settings = status.settings;
    line("Music", status.text(false));
    line("", "while playing: " + status.text(true));
    line("Horizon", settings.horizon.label() + (status.isSatisfied() ? " · reached" : " · not reached yet"));
    line("", settings.horizon.note());
    line("Mode", std::string(label(settings.mode)));
    line("Schedule", status.schedule.text(settings.schedule));
    const std::string pressure =
        status.pressure ? "memory pressure " + std::string(text(*status.pressure)) : "no memory pressure known";
    line("Pace", std::string(label(settings.pace)) + " · " + pressure +
                     (status.mayGenerate ? ", music may be made" : ", no music is made now"));
    line("", std::string(detail(settings.pace)));
    if (settings.radio) line("Radio", settings.radio->summary());
    line("Disk",
         sizeText(static_cast<std::uint64_t>(status.bytes)) + " in " + std::to_string(status.pieces) + " pieces");
    bool isFirst = true;
    for (const auto& [moodID, count] : status.ready) {
        line(isFirst ? "Ready" : "", moodID + ": " + std::to_string(count));
        isFirst = false;
    }
    if (status.holder) line("In use", "by " + *status.holder);
    if (status.saveError) line("Not saved", *status.saveError);
}

}  // namespace

void addStatusVerb(Verb program, Host& host) {
    Verb verb = program.addVerb("status", "Show how much music there is and what may be made now");
    verb.footer("Example: quillmere status --json");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([&host] {
        host.prepare();
        const auto status = statusOf(host);
        host.json ? printAsJSON(status) : printAsText(status);
    });
}

}  // namespace quillmere::app
