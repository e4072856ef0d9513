#pragma once

#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Moods/MoodSpec.hpp"

namespace quillmere::app {

class Verb;

/// What a command line asks to be different in a mood: everything that is not named stays.
class MoodChanges {
public:
    /// Adds the options to a verb. The object must outlive the command line.
    void addOptions(Verb verb);

    /// Makes the changes. Throws `UsageError` for what no mood can have, with a suggestion for a mistyped
    /// name; the mood may then be changed in part.
    void applyTo(MoodSpec& mood) const;

private:
    struct End {
        std::vector<std::string> tags;  // CATEGORY=VALUE, or none
        std::optional<std::string> text;
        std::string bpm;  // a number, or none
    };
    static void apply(const End& changes, const std::string& name, MoodEnd& end);

    std::optional<std::string> name_;
    std::string glyph_;
    std::string persona_;
    End calm_;
    End energetic_;
};

}  // namespace quillmere::app
