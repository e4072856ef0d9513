#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QuillmereKit/Library/LoopStore.hpp"
#include "QuillmereKit/Sharing/RecipeBundle.hpp"
#include "QuillmereKit/Sharing/RecipeVault.hpp"

namespace quillmere::app {

class Host;
class Verb;

/// What a file of recipes holds.
struct RecipeFile {
    std::string bytes;                  ///< The file, as read.
    bool isBundle = false;              ///< Several recipes, or a single one.
    RecipeBundle::Partition recipes{};  ///< Checked. A single recipe that fails its checks is thrown instead.
};

/// Reads a file of one recipe or several, at most `recipeFileLimit` bytes. Throws `FileError`, `JSONError` with the
/// place, or `ImportError`.
[[nodiscard]] RecipeFile readRecipes(const std::filesystem::path& file);

/// The recipe of the stored piece that a fingerprint, or the beginning of one, names, under the mood's name or the one
/// given, with everything that is known about it. The digest of the audio file is among that only while the file is
/// still the one that the engine wrote. Throws `UsageError` as `namedPiece`, and `Error` for a piece of a
/// user mood that is gone or was changed since, for nobody could recreate it, or that cannot be read.
[[nodiscard]] LoopRecipe recipeOf(const LoopStore& store, const std::string& fingerprint,
                                  const std::optional<std::string>& name);

/// The user's vault as its file holds it now. Where that cannot be read, it is said on standard error.
[[nodiscard]] RecipeVault& ownVault();

/// The same for who decides by what it holds, or hands that out. Throws `Error` where the file cannot be read.
[[nodiscard]] RecipeVault& readableVault();

/// The SHA-256 of the plain WAV file that holds the samples of an audio file: the digest that an engine's file had
/// before it was stored without loss. Throws `FileError`.
[[nodiscard]] std::string plainWAVDigest(const std::filesystem::path& file);

/// Where an export goes: `file`, or standard output where that is empty.
struct ExportTarget {
    std::string file;
    bool mayReplace = false;
};

/// Adds --output, described by `help`, and --force to an exporting verb. `target` must live as long as `verb`.
void addExportOptions(Verb verb, ExportTarget& target, const std::string& help);

/// Hands out the text of exported recipes: prints it, or writes the target's file durably and says so, by `label` or,
/// as JSON, by the file and the members that `encodeFacts` adds. Throws as `writeOutput`.
void exportText(const Host& host, const ExportTarget& target, const std::string& text, const std::string& label,
                const std::function<void(JSONWriter&)>& encodeFacts);

/// Saves the recipes of a file in the vault and says what became of them: 'recipe import' and 'vault import'.
void importRecipes(Host& host, const std::string& file);

/// Writes a failed check as {"case": text, "message": text}.
void encodeFailure(JSONWriter& writer, const ImportError& error);

/// Says on standard error which recipes of a file were refused, and why.
void warnOfRejected(const std::vector<RecipeBundle::Rejected>& rejected);

}  // namespace quillmere::app
