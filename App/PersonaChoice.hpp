#pragma once

#include <string>

#include "QuillmereKit/Moods/Persona.hpp"

namespace quillmere::app {

/// The persona with this id. Throws `UsageError` in the name of `option`, with a suggestion for a mistyped
/// one.
[[nodiscard]] Persona namedPersona(const std::string& option, const std::string& id);

}  // namespace quillmere::app
