#include <algorithm>
#include <cstdio>
#include <sstream>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/MoodChoice.hpp"
#include "App/Output.hpp"
#include "App/SettingsFile.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/TimeWindow.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere::app {
namespace {

constexpr std::string_view none = "none";

[[noreturn]] void refuse(const std::string& name, const std::string& reason) { throw UsageError(name, reason); }

// The case of an enumeration that the user named by its raw value.
template <class E>
E chosenCase(const std::string& name, const std::string& text) {
    if (const auto value = fromRawValue<E>(text)) return *value;
    std::vector<std::string> known;
    std::string all;
    for (const E value : allCases<E>()) {
        known.emplace_back(rawValue(value));
        all += (all.empty() ? "" : ", ") + known.back();
    }
    refuse(name, "\"" + safeForTerminal(text) + "\" is none of " + all + "." + didYouMean(text, known));
}

Horizon chosenHorizon(const std::string& text) {
    const auto minutes = decimalInteger(text);
    const auto horizon = Horizon::fromRawValue(minutes ? "minutes:" + text : text);
    if (horizon) return *horizon;
    std::vector<std::string> known;
    for (const Horizon& offered : Horizon::allCases()) known.push_back(offered.rawValue());
    refuse("horizon", "\"" + safeForTerminal(text) +
                          "\" is no length: give minutes from 1 to 1440, twentyMinutes, oneHour, threeHours or "
                          "unlimited." +
                          didYouMean(text, known));
}

RadioSet chosenRadio(const std::string& text, const std::optional<RadioSet>& present) {
    std::vector<std::string> moods;
    std::istringstream words(text);
    for (std::string word; std::getline(words, word, ',');) {
        const std::string id(trimmed(word));
        moods.push_back(namedMood("radio", id).id);
    }
    auto radio = RadioSet::make(moods, present ? std::optional(present->onAir()) : std::nullopt);
    if (!radio) refuse("radio", "name moods, as in designflow,deepcode, or none.");
    return *radio;
}

void choose(SettingsFile& file, const std::string& name, const std::string& text) {
    if (name == "horizon") return file.set(name, chosenHorizon(text));
    if (name == "mode") return file.set(name, chosenCase<GenerationMode>(name, text));
    if (name == "model") return file.set(name, chosenCase<GenerationModel>(name, text));
    if (name == "pace") return file.set(name, chosenCase<GenerationPace>(name, text));
    if (text == none) return file.reset(name);
    if (name == "radio") return file.set(name, chosenRadio(text, file.settings().radio));
    file.set(name, chosenWindow(text));
}

struct Shown {
    std::string value;
    std::string meaning;
};

Shown shown(const Settings& settings, std::string_view name) {
    if (name == "horizon") {
        return {settings.horizon.rawValue(), settings.horizon.label() + " · " + settings.horizon.cost()};
    }
    if (name == "mode") return {std::string(rawValue(settings.mode)), std::string(label(settings.mode))};
    if (name == "model") {
        return {std::string(rawValue(settings.model)),
                std::string(label(settings.model)) + " · " + std::string(detail(settings.model))};
    }
    if (name == "pace") {
        return {std::string(rawValue(settings.pace)),
                std::string(label(settings.pace)) + " · " + std::string(detail(settings.pace))};
    }
    if (name == "schedule") {
        return settings.schedule ? Shown{windowText(*settings.schedule), ""} : Shown{std::string(none), ""};
    }
    if (!settings.radio) return {std::string(none), ""};
    std::string moods;
    for (const auto& id : settings.radio->moodIDs()) moods += (moods.empty() ? "" : ",") + id;
    return {moods, settings.radio->summary() + " · on air: " + settings.radio->onAir()};
}

std::optional<std::string> json(const Settings& settings, std::string_view name) {
    const auto text = [](const auto& value) { return encodeJSON(value, JSONWriter::Form::sorted); };
    if (name == "horizon") return text(settings.horizon);
    if (name == "mode") return text(settings.mode);
    if (name == "model") return text(settings.model);
    if (name == "pace") return text(settings.pace);
    if (name == "radio") return settings.radio ? std::optional(text(*settings.radio)) : std::nullopt;
    return settings.schedule ? std::optional(text(*settings.schedule)) : std::nullopt;
}

void printAsJSON(const Settings& settings, const std::string& name) {
    if (!name.empty()) {
        std::printf("%s\n", safeJSON(json(settings, name).value_or("null")).c_str());
        return;
    }
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    for (const auto& each : SettingsFile::names()) {
        const auto value = json(settings, each);
        if (!value) continue;
        writer.key(each);
        writer.raw(*value);
    }
    writer.endObject();
    printJSON(writer);
}

void printAsText(const Settings& settings, const std::string& name) {
    if (!name.empty()) {
        std::printf("%s\n", safeForTerminal(shown(settings, name).value).c_str());
        return;
    }
    for (const auto& each : SettingsFile::names()) {
        const auto [value, meaning] = shown(settings, each);
        std::printf("%-9s %s\n", each.c_str(),
                    safeForTerminal(value + (meaning.empty() ? "" : "  (" + meaning + ")")).c_str());
    }
}

}  // namespace

void addSettingsVerb(Verb program, Host& host) {
    struct Options {
        std::string name;
        std::string value;
        bool isReset = false;
    };
    Verb verb = program.addVerb("settings", "List, show or set your choices");
    verb.footer(
        "Settings: horizon (minutes from 1 to 1440, or unlimited), mode (background, manual, scheduled),\n"
        "model (medium, small-music), pace (gentle, background, fast), radio (moods, or none),\n"
        "schedule (22:00-06:00, or none).\n\n"
        "Example: quillmere settings pace gentle");
    auto options = std::make_shared<Options>();
    verb.addOption("name", options->name, "The setting; without it, all are listed").typeName("NAME");
    const Option value =
        verb.addOption("value", options->value, "Its new value; without it, the setting is shown").typeName("VALUE");
    verb.addFlag("--reset", options->isReset, "Go back to the default").excludes(value);
    addHomeOption(verb, host);
    addJSONOption(verb, host);

    verb.callback([options, value, &host] {
        host.prepare();
        const std::string& name = options->name;
        const auto& names = SettingsFile::names();
        if (!name.empty() && std::ranges::find(names, name) == names.end()) {
            refuse("name", "there is no setting \"" + safeForTerminal(name) + "\"." +
                               didYouMean(name, names, " 'quillmere settings' lists them."));
        }
        if (options->isReset && name.empty()) refuse("--reset", "name the setting.");
        const bool isChange = options->isReset || value.isGiven();
        const auto lock = isChange ? Host::lockData() : nullptr;  // before the file is read
        SettingsFile& file = isChange ? host.presentSettings() : host.settingsFile();
        if (isChange) {
            host.change([&] { options->isReset ? file.reset(name) : choose(file, name, options->value); });
        }
        host.json ? printAsJSON(file.settings(), name) : printAsText(file.settings(), name);
    });
}

}  // namespace quillmere::app
