#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Moods/PromptTag.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// One end of a user mood, or a mixture of both: tags, free text and a tempo. A plain value.
struct MoodEnd {
    static constexpr std::int64_t bpmRangeMin = 30;   ///< Tempo offered to the user, from
    static constexpr std::int64_t bpmRangeMax = 300;  ///< to, both included; a value outside may still be held.

    /// No tags, no text, no tempo.
    static const MoodEnd empty;

    std::vector<PromptTag> tags;           ///< In the user's order.
    std::string text;                      ///< Free text that follows the tags in the prompt.
    std::optional<std::int64_t> bpm = {};  ///< Tempo in beats per minute.

    /// Whether there are no tags, nothing but blanks in the text, and no tempo.
    [[nodiscard]] bool isEmpty() const noexcept;

    /// The exact prompt that a renderer receives for this end: the tags by category, joined by ", ", a full stop, and
    /// the text without the blanks at its ends. Tag values are used verbatim; of several tempo tags the first counts.
    [[nodiscard]] std::string prompt() const;

    friend bool operator==(const MoodEnd&, const MoodEnd&) = default;
};

inline const MoodEnd MoodEnd::empty{};

/// {"tags": [tag], "text": text, "bpm": integer}; "bpm" only where present.
void encode(JSONWriter& writer, const MoodEnd& end);
template <>
MoodEnd decode<MoodEnd>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::MoodEnd> {
    std::size_t operator()(const quillmere::MoodEnd& end) const noexcept;
};
