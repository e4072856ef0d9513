#pragma once

#include <optional>
#include <string>

#include "App/Host.hpp"
#include "QuillmereKit/Sharing/LoopRecipe.hpp"

namespace quillmere::app {

/// A recipe's piece, made here.
struct Recreation {
    LoopArtifact piece;                         ///< As it is filed in the library.
    bool isNew = false;                         ///< Rendered now; otherwise the library held it already.
    std::string pcmDigest;                      ///< Of its samples.
    std::optional<bool> isSame = std::nullopt;  ///< Whether the audio is the original's; nothing where nobody said.
};

/// Why this machine, whose engine reports `localBuild`, cannot recreate a recipe; nothing if it can.
[[nodiscard]] std::optional<ImportError> whyNotHere(const LoopRecipe& recipe,
                                                    const std::optional<std::string>& localBuild);

/// Renders a valid recipe's piece at the recipe's length through the queue, files it, and compares its audio with the
/// recipe's digest of the file and with `digest`, one of the samples (empty: not known). A failure goes to the host,
/// and gives nothing. Throws `ImportError` where this machine cannot, `LibraryInUse`, or `FileError`.
[[nodiscard]] std::optional<Recreation> recreate(const LoopRecipe& recipe, const std::string& engine,
                                                 const std::string& digest, Host& host);

/// Prints the outcome; audio that is not the original's is a failure.
void report(const Recreation& done, Host& host);

}  // namespace quillmere::app
