#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "QuillmereKit/Library/LoopIdentity.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"
#include "QuillmereKit/Moods/Mood.hpp"
#include "QuillmereKit/Moods/MoodFamily.hpp"

namespace quillmere {

/// All moods: the built-in ones, a fixed list, and after them the user's own from a custom mood store.
/// Thread-safe. Where no store is given, the shared one is asked, whose first use blocks on disk.
namespace MoodCatalog {

/// The built-in moods in menu order; those without prompts are shown but cannot be played. Built once.
[[nodiscard]] const std::vector<Mood>& builtIn();

/// The built-in moods, then the store's, in the store's order.
[[nodiscard]] std::vector<Mood> all(const CustomMoodStore& store);

/// The moods of one menu section.
[[nodiscard]] std::vector<Mood> family(MoodFamily family);

/// The mood with exactly this id, a built-in one before a user's, or nothing.
[[nodiscard]] std::optional<Mood> mood(std::string_view id, const CustomMoodStore& store);

/// The same, over the shared store.
[[nodiscard]] std::optional<Mood> mood(std::string_view id);

/// The mood for who has not picked one: "designflow".
[[nodiscard]] const Mood& defaultMood();

/// The moods for which music can be made.
[[nodiscard]] std::vector<Mood> playable();

/// Whether a stored piece still belongs to its mood: always for a recording and for a built-in mood; for a user's mood
/// if today's mood asks for exactly this identity, at its own step, seed and model.
[[nodiscard]] bool isCurrent(const LoopIdentity& identity, const CustomMoodStore& store);

}  // namespace MoodCatalog

}  // namespace quillmere
