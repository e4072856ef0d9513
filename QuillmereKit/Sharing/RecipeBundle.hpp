#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Sharing/LoopRecipe.hpp"

namespace quillmere {

/// Several recipes in one file. A plain value.
struct RecipeBundle {
    static constexpr std::string_view currentSchema = "quillmere.recipes/1";  ///< The only one written and read.

    /// A recipe that failed its checks, and how.
    struct Rejected {
        LoopRecipe recipe;  ///< The recipe as read.
        ImportError error;  ///< Why it was refused.
        friend bool operator==(const Rejected&, const Rejected&) = default;
    };
    /// The recipes of a bundle, sorted out; both lists in file order.
    struct Partition {
        std::vector<LoopRecipe> usable;  ///< Those that passed.
        std::vector<Rejected> rejected;  ///< Those that did not.
        friend bool operator==(const Partition&, const Partition&) = default;
    };

    std::string schema = std::string(currentSchema);  ///< Format identifier.
    std::vector<LoopRecipe> recipes;                  ///< The recipes, in order.

    /// The bytes of the shareable file, each recipe as `forSharing` gives it. Throws `ImportError` if one cannot be
    /// shared.
    [[nodiscard]] std::string encoded() const;

    /// Reads a bundle; the recipes inside are not validated. Throws `JSONError`, or `ImportError` for another schema.
    [[nodiscard]] static RecipeBundle decode(std::string_view bytes);

    /// Validates each recipe.
    [[nodiscard]] Partition partition(const std::set<std::string, std::less<>>& knownMoods = builtInMoodIDs()) const;

    friend bool operator==(const RecipeBundle&, const RecipeBundle&) = default;
};

/// {"schema": string, "recipes": [recipe]}
void encode(JSONWriter& writer, const RecipeBundle& bundle);
template <>
RecipeBundle decode<RecipeBundle>(const JSONValue& value);

}  // namespace quillmere
