#include <algorithm>
#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/MoodChanges.hpp"
#include "App/MoodChoice.hpp"
#include "App/Output.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"

namespace quillmere::app {
namespace {

// The user's own specification of a mood; null for a built-in one.
const MoodSpec* specificationOf(const Mood& mood) { return mood.spec ? &*mood.spec : nullptr; }  // specification

void write(JSONWriter& writer, const Mood& mood) {
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
    if (const auto* own = specificationOf(mood)) writer.member("moodSpec", *own);
    writer.endObject();
}

void printMood(const Mood& mood) {
    JSONWriter writer(JSONWriter::Form::pretty);
    write(writer, mood);
    printJSON(writer);
}

void listAsJSON(const std::vector<Mood>& moods) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginArray();
    for (const Mood& mood : moods) write(writer, mood);
    writer.endArray();
    printJSON(writer);
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

void list(const Host& host) {
    const auto moods = MoodCatalog::all(ownMoods());
    host.json ? listAsJSON(moods) : listAsText(moods);
}

void printLine(const char* name, std::string_view value) {
    std::printf("  %-10s %s\n", name, safeForTerminal(value).c_str());
}

void printEnd(Anchor anchor, const MoodEnd& end) {
    std::printf("  %s\n", std::string(label(anchor)).c_str());
    for (const PromptTag& tag : end.tags) {
        std::printf("    %-12s %s\n", std::string(title(tag.category)).c_str(), safeForTerminal(tag.value).c_str());
    }
    if (end.bpm) std::printf("    %-12s %lld\n", "BPM", static_cast<long long>(*end.bpm));
    if (!end.text.empty()) std::printf("    %-12s %s\n", "Text", safeForTerminal(end.text).c_str());
}

void show(const Host& host, const Mood& mood) {
    if (host.json) return printMood(mood);
    std::printf("%s\n", safeForTerminal(mood.name).c_str());
    printLine("id", mood.id);
    printLine("family", title(mood.family));
    printLine("glyph", rawValue(mood.glyph));
    if (const auto* own = specificationOf(mood)) {
        printEnd(Anchor::calm, own->calm);
        printEnd(Anchor::energetic, own->energetic);
        if (own->soundGuide) printLine("guide", own->soundGuide->sourceName);
    } else if (mood.prompts) {
        for (const auto& [anchor, prompt] : *mood.prompts) printLine(std::string(rawValue(anchor)).c_str(), prompt);
    }
    if (!mood.isPlayable()) std::printf("  no music can be made for it yet\n");
}

// The user's own mood of this name; a built-in one is refused with a sentence of its own.
MoodSpec ownMood(const std::string& id) {
    const Mood mood = namedMood("mood", id);
    if (const auto* own = specificationOf(mood)) return *own;
    throw UsageError("mood", "\"" + safeForTerminal(id) + "\" is built in and stays as it is.");
}

// Ids are random, so a second mood of the same text is another one.
void create(Host& host, const MoodChanges& changes) {
    const auto lock = host.lockData();
    MoodSpec made = MoodSpec::blank(MoodGlyph::wave);
    changes.applyTo(made);
    host.change([&] { ownMoods().save(made); });
    if (host.json) {
        printMood(Mood(made));
    } else {
        std::printf("%s  %s\n", made.id.c_str(), safeForTerminal(made.name).c_str());
    }
    if (!made.isPlayable()) Host::warn("No music can be made for it until both ends have tags, text or a tempo.");
}

void edit(Host& host, const std::string& id, const MoodChanges& changes) {
    const auto lock = host.lockData();
    const MoodSpec before = ownMood(id);
    MoodSpec after = before;
    changes.applyTo(after);
    if (after != before) host.change([&] { CustomMoodStore::shared().save(after); });
    if (host.json) {
        printMood(Mood(after));
    } else {
        std::printf("%s  %s%s\n", safeForTerminal(after.id).c_str(), safeForTerminal(after.name).c_str(),
                    after == before ? "  (unchanged)" : "");
    }
    if (!after.rendersLike(before)) Host::warn("Pieces made for it before this change are no longer played.");
}

void remove(Host& host, const std::string& id, bool isMeant) {
    const auto lock = host.lockData();
    const MoodSpec mood = ownMood(id);
    if (isMeant) host.change([&] { CustomMoodStore::shared().remove(mood.id); });
    if (host.json) {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.member("id", mood.id);
        writer.member("name", mood.name);
        writer.member("isDeleted", isMeant);
        writer.endObject();
        printJSON(writer);
    } else {
        std::printf("%s %s  %s%s\n", isMeant ? "Deleted" : "Would delete", safeForTerminal(mood.id).c_str(),
                    safeForTerminal(mood.name).c_str(), isMeant ? "" : "  (add --yes to do it)");
    }
}

// The renderer's prompt where the mood has a complete one for the step; a built-in mood has texts for its two ends
// alone, and the renderer blends them by weight.
void prompt(const Host& host, const std::string& id, BlendStep step) {
    const Mood mood = playableMood("mood", id);
    const auto* own = specificationOf(mood);
    std::optional<std::string> whole;
    if (own != nullptr) {
        whole = own->prompt(step);
    } else if (step.isAnchor()) {
        whole = mood.prompt(step.anchor());
    }
    if (host.json) {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.member("id", mood.id);
        writer.member("blend", step.index());
        writer.member("label", step.label());
        writer.member("weight", step.weight());
        writer.member("calmPrompt", mood.prompt(Anchor::calm).value_or(""));
        writer.member("energeticPrompt", mood.prompt(Anchor::energetic).value_or(""));
        writer.member("prompt", whole);
        writer.endObject();
        return printJSON(writer);
    }
    if (whole) {
        std::printf("%s\n", safeForTerminal(*whole).c_str());
        return;
    }
    for (const Anchor anchor : allCases<Anchor>()) {
        const double share = anchor == Anchor::calm ? 1 - step.weight() : step.weight();
        std::printf("%3.0f %%  %s\n", share * 100, safeForTerminal(mood.prompt(anchor).value_or("")).c_str());
    }
}

}  // namespace

void addMoodsVerb(Verb program, Host& host) {
    struct Options {
        std::string mood;
        std::int64_t blend = 1;
        bool isMeant = false;
        MoodChanges changes;
    };
    auto options = std::make_shared<Options>();
    Verb verb = program.addVerb("moods", "List the moods by family; show, make, change and delete your own");
    verb.footer("Example: quillmere moods --json");
    verb.requireVerbs(0, 1);
    addHomeOption(verb, host);
    addJSONOption(verb, host);
    verb.callback([verb, &host] {
        if (verb.isVerbGiven()) return;
        host.prepare();
        list(host);
    });

    const auto add = [&](const char* name, const char* what, const char* example) {
        Verb part = verb.addVerb(name, what);
        part.footer(std::string("Example: quillmere moods ") + example);
        addHomeOption(part, host);
        addJSONOption(part, host);
        return part;
    };
    const auto addMood = [&](Verb part) {
        part.addOption("mood", options->mood, "The mood's id, as 'quillmere moods' lists it")
            .typeName("MOOD")
            .required();
    };

    Verb listing = add("list", "List the moods by family", "list --json");
    listing.callback([&host] {
        host.prepare();
        list(host);
    });

    Verb showing = add("show", "Show a mood", "show designflow");
    addMood(showing);
    showing.callback([options, &host] {
        host.prepare();
        show(host, namedMood("mood", options->mood));
    });

    Verb making = add("new", "Make a mood of your own",
                      "new --name \"Night train\" --calm-tag genre=ambient --calm-bpm 70 "
                      "--energetic-tag genre=techno --energetic-bpm 120");
    options->changes.addOptions(making);
    making.callback([options, &host] {
        host.prepare();
        create(host, options->changes);
    });

    Verb editing = add("edit", "Change a mood of your own", "edit my-3f9a0c1e --energetic-bpm none");
    addMood(editing);
    options->changes.addOptions(editing);
    editing.callback([options, &host] {
        host.prepare();
        edit(host, options->mood, options->changes);
    });

    Verb deleting = add("delete", "Delete a mood of your own; its pieces stay", "delete my-3f9a0c1e --yes");
    addMood(deleting);
    deleting.addFlag("--yes", options->isMeant, "Really do it; without it, only say what would be deleted");
    deleting.callback([options, &host] {
        host.prepare();
        remove(host, options->mood, options->isMeant);
    });

    Verb prompting = add("prompt", "Show the complete prompt at a blend step", "prompt my-3f9a0c1e --blend 2");
    addMood(prompting);
    addBlendOption(prompting, options->blend);
    prompting.callback([options, &host] {
        host.prepare();
        prompt(host, options->mood, BlendStep(options->blend));
    });
}

}  // namespace quillmere::app
