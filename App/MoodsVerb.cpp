#include <CLI/CLI.hpp>
#include <cstdio>

#include "App/Host.hpp"
#include "App/Terminal.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere::app {
namespace {

void listAsJSON(const std::vector<Mood>& moods) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginArray();
    for (const Mood& mood : moods) {
        writer.beginObject();
        writer.member("id", mood.id);
        writer.member("name", mood.name);
        writer.member("family", rawValue(mood.family));
        writer.member("glyph", rawValue(mood.glyph));
        writer.member("isPlayable", mood.isPlayable());
        if (mood.prompts) {
            writer.key("prompts");
            writer.beginObject();
            for (const auto& [anchor, prompt] : *mood.prompts) writer.member(rawValue(anchor), prompt);
            writer.endObject();
        }
        writer.endObject();
    }
    writer.endArray();
    std::printf("%s\n", writer.take().c_str());
}

void listAsText(const std::vector<Mood>& moods) {
    bool isFirst = true;
    for (const MoodFamily family : allCases<MoodFamily>()) {
        bool hasTitle = false;
        for (const Mood& mood : moods) {
            if (mood.family != family) continue;
            if (!hasTitle) {
                std::printf("%s%s\n", isFirst ? "" : "\n", std::string(title(family)).c_str());
                hasTitle = true;
                isFirst = false;
            }
            std::printf("  %-16s %s%s\n", safeForTerminal(mood.id).c_str(), safeForTerminal(mood.name).c_str(),
                        mood.isPlayable() ? "" : "  (no music yet)");
        }
    }
}

}  // namespace

void addMoodsVerb(CLI::App& app, Host& host) {
    auto& verb = *app.add_subcommand("moods", "List the moods by family");
    verb.footer("Example: quillmere moods --json");
    addHomeOption(verb, host);
    addJSONOption(verb, host);
    verb.callback([&host] {
        host.prepare();
        const auto moods = MoodCatalog::all(CustomMoodStore::shared());
        host.json ? listAsJSON(moods) : listAsText(moods);
    });
}

}  // namespace quillmere::app
