#include <algorithm>
#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/MoodChoice.hpp"
#include "App/Output.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"

namespace quillmere::app {
namespace {

struct Options {
    std::vector<std::string> moods;
    std::string mood;
    std::string onAir;
};

// The radio as it is kept.
RadioSet keptRadio(const SettingsFile& file) {
    if (const auto& radio = file.settings().radio) return *radio;
    throw Error("There is no radio yet. 'quillmere radio make MOOD...' makes one.");
}

void show(const Host& host, const RadioSet& radio) {
    if (host.json) {
        JSONWriter writer(JSONWriter::Form::pretty);
        writer.beginObject();
        writer.member("summary", radio.summary());
        writer.member("moodIDs", radio.moodIDs());
        writer.member("onAir", radio.onAir());
        writer.endObject();
        return printJSON(writer);
    }
    std::printf("%s\n", radio.summary().c_str());
    for (const auto& id : radio.moodIDs()) {
        const char* const without = isReadable(id) ? "(no such mood)" : "(cannot be read)";
        const auto mood = MoodCatalog::mood(id);
        std::printf("%s %-16s %s\n", id == radio.onAir() ? " >" : "  ", safeForTerminal(id).c_str(),
                    mood ? safeForTerminal(mood->name).c_str() : without);
    }
}

void keep(Host& host, const RadioSet& radio) {
    host.change([&] { host.settingsFile().set("radio", radio); });
    show(host, radio);
}

void make(Host& host, const Options& options) {
    const auto lock = Host::lockData();
    for (const auto& id : options.moods) static_cast<void>(playableMood("mood", id));
    if (!options.onAir.empty() && std::ranges::find(options.moods, options.onAir) == options.moods.end()) {
        throw UsageError("--on-air", "\"" + safeForTerminal(options.onAir) + "\" is none of the moods." +
                                         didYouMean(options.onAir, options.moods));
    }
    keep(host, RadioSet::make(options.moods, options.onAir).value());
}

// A mood that is gone can still be taken out.
void toggle(Host& host, const Options& options) {
    const auto lock = Host::lockData();
    const auto& kept = host.presentSettings().settings().radio;
    if (!kept || !kept->contains(options.mood)) static_cast<void>(playableMood("mood", options.mood));
    if (!kept) return keep(host, RadioSet::make({options.mood}, std::nullopt).value());
    RadioSet radio = *kept;
    const auto result = radio.toggle(options.mood);
    if (std::holds_alternative<RadioSet::ToggleResult::RefusedLastMood>(result.value())) {
        return host.fail(ExitCode::failure, "A radio has at least one mood, so its last one stays.");
    }
    keep(host, radio);
}

void advance(Host& host) {
    const auto lock = Host::lockData();
    RadioSet radio = keptRadio(host.presentSettings());
    radio.advance();
    keep(host, radio);
}

}  // namespace

void addRadioVerb(Verb program, Host& host) {
    auto options = std::make_shared<Options>();
    Verb verb = program.addVerb("radio", "Show and make the radio: moods that take turns on air");
    verb.footer("Example: quillmere radio make designflow winddown");
    verb.requireVerbs(0, 1);
    addHomeOption(verb, host);
    addJSONOption(verb, host);
    verb.callback([verb, &host] {
        if (verb.isVerbGiven()) return;
        host.prepare();
        show(host, keptRadio(host.settingsFile()));
    });
    const auto add = [&](const char* name, const char* what, const char* example) {
        Verb part = verb.addVerb(name, what);
        part.footer(std::string("Example: quillmere radio ") + example);
        addHomeOption(part, host);
        addJSONOption(part, host);
        return part;
    };

    Verb showing = add("show", "Show the radio", "show --json");
    showing.callback([&host] {
        host.prepare();
        show(host, keptRadio(host.settingsFile()));
    });

    Verb making = add("make", "Make the radio of these moods", "make designflow winddown --on-air winddown");
    making.addOption("mood", options->moods, "The moods, in order").typeName("MOOD").required();
    making.addOption("--on-air", options->onAir, "The one on air now (default: the first)").typeName("MOOD");
    making.callback([options, &host] {
        host.prepare();
        make(host, *options);
    });

    Verb toggling = add("toggle", "Add a mood, or take it out", "toggle deepcode");
    toggling.addOption("mood", options->mood, "The mood").typeName("MOOD").required();
    toggling.callback([options, &host] {
        host.prepare();
        toggle(host, *options);
    });

    Verb advancing = add("next", "Put the next mood on air", "next");
    advancing.callback([&host] {
        host.prepare();
        advance(host);
    });
}

}  // namespace quillmere::app
