#include "QuillmereKit/Moods/MoodCatalog.hpp"

#include <algorithm>
#include <iterator>
#include <utility>

namespace quillmere::MoodCatalog {
namespace {

Mood playableMood(const char* id, const char* name, MoodFamily family, MoodGlyph glyph, const char* calm,
                  const char* energetic) {
    return {id, name, family, glyph, Mood::Prompts{{Anchor::calm, calm}, {Anchor::energetic, energetic}}};
}

Mood listedMood(const char* id, const char* name, MoodFamily family, MoodGlyph glyph) {
    return {id, name, family, glyph, std::nullopt};
}

template <class Keep>
std::vector<Mood> filtered(std::vector<Mood> moods, const Keep& keep) {
    std::erase_if(moods, [&](const Mood& mood) { return !keep(mood); });
    return moods;
}

}  // namespace

const std::vector<Mood>& builtIn() {
    using enum MoodFamily;
    using enum MoodGlyph;
    static const std::vector<Mood> moods{
        playableMood("deepcode", "Deep Code", focus, pulse, "sustained warm pads, gentle motion, smooth, instrumental",
                     "soft electronic pulse, warm sustained pads, gentle motion, instrumental"),
        playableMood("sprint", "Sprint", focus, bolt,
                     "pulsing synth arpeggio, warm sustained pads, steady forward motion, instrumental",
                     "driving synth arpeggio, steady electronic pulse, warm pads, forward motion, instrumental"),
        listedMood("writing", "Writing", focus, wave),
        listedMood("deepread", "Deep Read", focus, arc),
        playableMood("meetingprep", "Meeting Prep", focus, grain,
                     "calm corporate ambient bed, even sustained pads, smooth, instrumental",
                     "corporate underscore bed, soft steady pulse, unobtrusive, instrumental"),
        listedMood("morningstart", "Morning Start", focus, step),
        playableMood("designflow", "Design Flow", ambient, wave,
                     "warm analog synth pads, clean spacious sound, gentle motion, instrumental",
                     "melodic downtempo, brushed drums, airy synths, unobtrusive groove, instrumental"),
        listedMood("longhaul", "Long Haul", ambient, arc),
        listedMood("rainroom", "Rain Room", ambient, grain),
        listedMood("studiohaze", "Studio Haze", ambient, ring),
        listedMood("glassroom", "Glass Room", ambient, step),
        listedMood("longdrive", "Long Drive", ambient, pulse),
        playableMood("winddown", "Wind Down", low, descend,
                     "warm ambient pads, deep reverb, slow motion, smooth, instrumental",
                     "warm electric piano chords, gentle bass pulse, sustained soft pads, relaxed tempo, instrumental"),
        listedMood("latenight", "Late Night", low, descend),
        playableMood("recovery", "Recovery", low, arc,
                     "warm restorative pads, gentle sustained tones, slow breathing motion, smooth, instrumental",
                     "warm restorative pads, gentle sustained tones, slow steady pulse, flowing motion, instrumental"),
        listedMood("slowsunday", "Slow Sunday", low, ring),
        listedMood("afterhours", "After Hours", low, grain),
        listedMood("deeprest", "Deep Rest", low, step),
    };
    return moods;
}

std::vector<Mood> all(const CustomMoodStore& store) {
    std::vector<Mood> moods = builtIn();
    auto specs = store.all();
    moods.reserve(moods.size() + specs.size());
    for (auto& spec : specs) moods.emplace_back(std::move(spec));
    return moods;
}

std::vector<Mood> family(MoodFamily family) {
    return filtered(all(CustomMoodStore::shared()), [=](const Mood& mood) { return mood.family == family; });
}

std::optional<Mood> mood(std::string_view id, const CustomMoodStore& store) {
    const auto& moods = builtIn();
    const auto found = std::ranges::find(moods, id, &Mood::id);
    if (found != moods.end()) return *found;
    if (auto spec = store.spec(id)) return Mood(std::move(*spec));
    return std::nullopt;
}

std::optional<Mood> mood(std::string_view id) { return mood(id, CustomMoodStore::shared()); }

const Mood& defaultMood() {
    static const Mood& mood = []() -> const Mood& {
        const auto& moods = builtIn();
        const auto found = std::ranges::find(moods, "designflow", &Mood::id);
        return found != moods.end() ? *found : moods.front();
    }();
    return mood;
}

std::vector<Mood> playable() {
    return filtered(all(CustomMoodStore::shared()), [](const Mood& mood) { return mood.isPlayable(); });
}

bool isCurrent(const LoopIdentity& identity, const CustomMoodStore& store) {
    if (identity.isRecording() || !identity.moodID.starts_with(MoodSpec::idPrefix)) return true;
    const auto today = mood(identity.moodID, store);
    return today && today->identity(identity.blend, identity.seed, identity.model) == identity;
}

}  // namespace quillmere::MoodCatalog
