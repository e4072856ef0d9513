#pragma once

#include <functional>
#include <string>

#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// The machine on which a piece was rendered. A plain value; the library only carries it.
struct RecipeOrigin {
    std::string chip;  ///< The processor's name, as the caller supplies it.

    friend bool operator==(const RecipeOrigin&, const RecipeOrigin&) = default;
};

/// {"chip": string}
void encode(JSONWriter& writer, const RecipeOrigin& origin);
template <>
RecipeOrigin decode<RecipeOrigin>(const JSONValue& value);
void decodeInto(const JSONValue& value, RecipeOrigin& into);

}  // namespace quillmere

template <>
struct std::hash<quillmere::RecipeOrigin> {
    std::size_t operator()(const quillmere::RecipeOrigin& origin) const noexcept {
        return std::hash<std::string>{}(origin.chip);
    }
};
