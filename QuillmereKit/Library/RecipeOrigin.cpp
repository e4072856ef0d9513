#include "QuillmereKit/Library/RecipeOrigin.hpp"

#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {

void encode(JSONWriter& writer, const RecipeOrigin& origin) {
    writer.beginObject();
    writer.member("chip", origin.chip);
    writer.endObject();
}

template <>
RecipeOrigin decode<RecipeOrigin>(const JSONValue& value) {
    return {.chip = value.member<std::string>("chip")};
}

void decodeInto(const JSONValue& value, RecipeOrigin& into) { JSONMembers(value).read("chip", into.chip); }

}  // namespace quillmere
