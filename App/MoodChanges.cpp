#include "App/MoodChanges.hpp"

#include "App/CommandLine.hpp"
#include "App/PersonaChoice.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "QuillmereKit/Platform/Enumeration.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere::app {
namespace {

constexpr std::string_view none = "none";

// The case of an enumeration that the user named by its raw value.
template <class E>
E namedCase(const std::string& option, std::string_view text) {
    if (const auto found = fromRawValue<E>(text)) return *found;
    std::vector<std::string> known;
    std::string all;
    for (const E each : allCases<E>()) {
        known.emplace_back(rawValue(each));
        all += (all.empty() ? "" : ", ") + known.back();
    }
    throw UsageError(option, "\"" + safeForTerminal(text) + "\" is none of " + all + "." + didYouMean(text, known));
}

PromptTag namedTag(const std::string& option, std::string_view text) {
    const auto sign = text.find('=');
    if (sign == std::string_view::npos) {
        throw UsageError(option, "\"" + safeForTerminal(text) + "\" is no tag: give CATEGORY=VALUE, or none.");
    }
    const std::string_view value = trimmed(text.substr(sign + 1));
    if (value.empty()) throw UsageError(option, "\"" + safeForTerminal(text) + "\" has no value.");
    return {namedCase<TagCategory>(option, trimmed(text.substr(0, sign))), std::string(value)};
}

}  // namespace

void MoodChanges::addOptions(Verb verb) {
    verb.addOption("--name", name_, "The name that is shown").typeName("TEXT");
    verb.addOption("--glyph", glyph_, "The symbol: wave, descend, bolt, pulse, arc, grain, ring or step")
        .typeName("GLYPH");
    verb.addOption("--persona", persona_, "Take both ends' texts from a persona, as 'quillmere personas' lists it")
        .typeName("PERSONA");
    const auto add = [&](const std::string& end, End& changes) {
        verb.addOption("--" + end + "-tag", changes.tags,
                       "A tag of the " + end +
                           " end, such as genre=ambient, in place of those it has; can be given "
                           "again; none takes all away. 'quillmere tags' suggests some")
            .typeName("CATEGORY=VALUE")
            .oneAtATime();
        verb.addOption("--" + end + "-text", changes.text, "Free text that follows the tags").typeName("TEXT");
        verb.addOption("--" + end + "-bpm", changes.bpm, "Beats per minute, 30 to 300, or none").typeName("N");
    };
    add("calm", calm_);
    add("energetic", energetic_);
}

void MoodChanges::applyTo(MoodSpec& mood) const {
    if (name_) {
        if (trimmed(*name_).empty()) throw UsageError("--name", "a name is needed.");
        mood.name = std::string(trimmed(*name_));
    }
    if (!glyph_.empty()) mood.glyph = namedCase<MoodGlyph>("--glyph", glyph_);
    if (!persona_.empty()) {
        const Persona persona = namedPersona("--persona", persona_);
        mood.calm.text = persona.prompt(Anchor::calm);
        mood.energetic.text = persona.prompt(Anchor::energetic);
    }
    apply(calm_, "calm", mood.calm);
    apply(energetic_, "energetic", mood.energetic);
}

void MoodChanges::apply(const End& changes, const std::string& name, MoodEnd& end) {
    if (!changes.tags.empty()) {
        end.tags.clear();
        const bool isCleared = changes.tags.size() == 1 && changes.tags.front() == none;
        if (!isCleared) {
            for (const auto& tag : changes.tags) end.tags.push_back(namedTag("--" + name + "-tag", tag));
        }
    }
    if (changes.text) end.text = *changes.text;
    if (changes.bpm == none) {
        end.bpm.reset();
    } else if (!changes.bpm.empty()) {
        const auto bpm = decimalInteger(changes.bpm);
        if (!bpm || *bpm < MoodEnd::bpmRangeMin || *bpm > MoodEnd::bpmRangeMax) {
            throw UsageError("--" + name + "-bpm", "give beats per minute from 30 to 300, or none.");
        }
        end.bpm = bpm;
    }
}

}  // namespace quillmere::app
