#include "QuillmereKit/Sharing/RecipeBundle.hpp"

#include <utility>

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

std::string RecipeBundle::encoded() const {
    RecipeBundle shared;
    shared.recipes.reserve(recipes.size());
    for (const LoopRecipe& recipe : recipes) shared.recipes.push_back(recipe.forSharing());
    return encodeJSON(shared, JSONWriter::Form::pretty);
}

RecipeBundle RecipeBundle::decode(std::string_view bytes) {
    const auto document = JSONDocument::parse(bytes);
    // The schema comes first: a file of another kind is told apart before its other keys are missed.
    auto schema = document.root().member<std::string>("schema");
    if (schema != currentSchema) throw ImportError(ImportError::UnsupportedSchema{std::move(schema)});
    return quillmere::decode<RecipeBundle>(document.root());
}

RecipeBundle::Partition RecipeBundle::partition(const std::set<std::string, std::less<>>& knownMoods) const {
    Partition result;
    for (const LoopRecipe& recipe : recipes) {
        try {
            recipe.validate(knownMoods);
            result.usable.push_back(recipe);
        } catch (const ImportError& error) {
            result.rejected.push_back({recipe, error});
        }
    }
    return result;
}

void encode(JSONWriter& writer, const RecipeBundle& bundle) {
    writer.beginObject();
    writer.member("schema", bundle.schema);
    writer.member("recipes", bundle.recipes);
    writer.endObject();
}

template <>
RecipeBundle decode<RecipeBundle>(const JSONValue& value) {
    return {.schema = value.member<std::string>("schema"), .recipes = value.member<std::vector<LoopRecipe>>("recipes")};
}

}  // namespace quillmere
