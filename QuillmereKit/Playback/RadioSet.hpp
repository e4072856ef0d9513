#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// The user's radio: a list of moods that take turns on air.
///
/// Never becomes empty by its own operations; only one read from JSON may be. A plain value without a lock.
class RadioSet {
public:
    /// What a toggle did.
    class ToggleResult {
    public:
        /// The mood was not in the radio and has been appended.
        struct Added {
            std::string moodID;  ///< The mood.
            friend bool operator==(const Added&, const Added&) = default;
        };
        /// The mood was in the radio and has been removed.
        struct Removed {
            std::string moodID;  ///< The mood.
            friend bool operator==(const Removed&, const Removed&) = default;
        };
        /// The mood is the only one left; nothing changed.
        struct RefusedLastMood {
            friend bool operator==(const RefusedLastMood&, const RefusedLastMood&) = default;
        };
        /// The cases, in order.
        using Value = std::variant<Added, Removed, RefusedLastMood>;

        /// The result of one of the cases.
        ToggleResult(Value value) : value_(std::move(value)) {}  // NOLINT: converts on purpose

        /// The case with its payload.
        [[nodiscard]] const Value& value() const noexcept { return value_; }
        friend bool operator==(const ToggleResult&, const ToggleResult&) = default;

    private:
        Value value_;
    };

    /// The radio of these moods, duplicates kept; on air is `onAir` if it is one of them, else the first. Nothing for
    /// an empty list.
    [[nodiscard]] static std::optional<RadioSet> make(std::vector<std::string> moodIDs,
                                                      const std::optional<std::string>& onAir);

    /// The moods, in the order they were added.
    [[nodiscard]] const std::vector<std::string>& moodIDs() const noexcept { return moodIDs_; }
    /// The mood on air now; normally one of `moodIDs`.
    [[nodiscard]] const std::string& onAir() const noexcept { return onAir_; }

    /// How many moods there are, duplicates counted.
    [[nodiscard]] std::size_t count() const noexcept { return moodIDs_.size(); }
    /// Whether a mood is in the list.
    [[nodiscard]] bool contains(std::string_view moodID) const noexcept;

    /// Removes the mood where it is in the radio (the next one, or the new last one, goes on air in its stead), else
    /// appends it. The only mood stays.
    ToggleResult toggle(const std::string& moodID);

    /// Moves to the next mood of the list, after the last to the first, and returns it.
    const std::string& advance();

    /// One line for the menu: "Radio · 4 moods".
    [[nodiscard]] std::string summary() const;

    friend bool operator==(const RadioSet&, const RadioSet&) = default;

private:
    friend RadioSet decode<RadioSet>(const JSONValue& value);
    RadioSet(std::vector<std::string> moodIDs, std::string onAir) noexcept
        : moodIDs_(std::move(moodIDs)), onAir_(std::move(onAir)) {}

    std::vector<std::string> moodIDs_;
    std::string onAir_;
};

/// {"moodIDs": [string], "onAir": string}; read as it stands.
void encode(JSONWriter& writer, const RadioSet& radio);
template <>
RadioSet decode<RadioSet>(const JSONValue& value);

}  // namespace quillmere
