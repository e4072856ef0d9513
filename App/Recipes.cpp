#include "App/Recipes.hpp"

#include <array>
#include <cmath>
#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/DigestBook.hpp"
#include "App/Host.hpp"
#include "App/MoodChoice.hpp"
#include "App/Output.hpp"
#include "App/Pieces.hpp"
#include "App/Terminal.hpp"
#include "QuillmereKit/Library/AudioPCM.hpp"
#include "QuillmereKit/Library/FileSHA256.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/FileSystem.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/PageAligned.hpp"
#include "QuillmereKit/Platform/SHA256.hpp"

namespace quillmere::app {
namespace {

constexpr AudioFormat engineFormat = {AudioFormat::Codec::linearPCM, 16, 48000, 2};

// Whether the file is still the whole WAV file that an engine wrote, as far as anybody can tell: where the digest of
// the samples was kept when they were made, they are still those. While that cannot be read, nobody can tell.
bool isEngineFile(const LoopStore& store, const LoopArtifact& piece) {
    try {
        AudioFile audio(piece.url.path());
        if (audio.format() != engineFormat || audio.frames() != std::llround(piece.seconds * 48000)) return false;
        const auto digests = Host::digests(store);
        const auto made = digests.digest(piece.id());
        return made ? *made == AudioPCM::digest(audio) : !digests.problem();
    } catch (const Error&) {  // damaged, gone, or without loss where no module can read that
        return false;
    }
}

void appendNumber(std::string& bytes, std::uint32_t value, int size) {
    for (int i = 0; i < size; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xff);
}

// The 44 bytes before the samples of a plain stereo WAV file.
std::string plainHeader(std::uint32_t dataSize) {
    std::string header = "RIFF";
    appendNumber(header, 36 + dataSize, 4);
    header += "WAVEfmt ";
    appendNumber(header, 16, 4);
    appendNumber(header, 1, 2);  // linear PCM
    appendNumber(header, 2, 2);
    appendNumber(header, 48000, 4);
    appendNumber(header, 48000 * 4, 4);
    appendNumber(header, 4, 2);
    appendNumber(header, 16, 2);
    header += "data";
    appendNumber(header, dataSize, 4);
    return header;
}

}  // namespace

RecipeFile readRecipes(const std::filesystem::path& file) {
    RecipeFile read{.bytes = readFile(file, recipeFileLimit, FinalLink::followed)};
    {
        const auto document = JSONDocument::parse(read.bytes);
        if (!document.root().isObject()) throw JSONError("is not an object");
        const auto schema = document.root().find("schema");
        read.isBundle = document.root().find("recipes").has_value() ||
                        (schema && schema->isString() && schema->string() == RecipeBundle::currentSchema);
    }
    if (read.isBundle) {
        read.recipes = RecipeBundle::decode(read.bytes).partition();
    } else {
        read.recipes.usable.push_back(LoopRecipe::decode(read.bytes));
    }
    return read;
}

LoopRecipe recipeOf(const LoopStore& store, const std::string& fingerprint, const std::optional<std::string>& name) {
    const LoopArtifact piece = namedPiece(store, fingerprint);
    const auto& identity = piece.identity;
    requireReadable(identity.moodID);
    const auto mood = MoodCatalog::mood(identity.moodID);
    if (!piece.isPlayable()) {
        throw Error("The mood \"" + (mood ? mood->name : identity.moodID) +
                    "\" was changed or deleted since this piece was made, so nobody could recreate it.");
    }
    std::optional<std::string> digest;
    if (isEngineFile(store, piece)) digest = FileSHA256::digest(piece.url);
    const auto* own = mood && mood->spec ? &*mood->spec : nullptr;  // a specification: of the user's own moods alone
    return LoopRecipe::make(piece, name.value_or(mood ? mood->name : identity.moodID),
                            own != nullptr ? std::optional(*own) : std::nullopt, piece.engineBuild, piece.origin,
                            std::move(digest));
}

RecipeVault& ownVault() {
    auto& vault = RecipeVault::shared();
    vault.refresh();
    if (const auto problem = vault.loadProblem()) Host::warn(*problem);
    return vault;
}

RecipeVault& readableVault() {
    auto& vault = RecipeVault::shared();
    vault.refresh();
    if (const auto problem = vault.loadProblem()) throw Error(*problem);
    return vault;
}

std::string plainWAVDigest(const std::filesystem::path& file) {
    AudioFile audio(file);
    SHA256 hash;
    const std::string header = plainHeader(static_cast<std::uint32_t>(audio.frames() * 4));
    hash.update(std::as_bytes(std::span(header)));
    const auto channels = static_cast<std::size_t>(audio.format().channels);
    PageAligned<std::int16_t> samples(audio.framesAtATime() * channels);
    while (const std::size_t frames = audio.read(samples)) {
        hash.update(std::as_bytes(std::span(samples).first(frames * channels)));
    }
    return hexadecimal(hash.finish());
}

void addExportOptions(Verb verb, ExportTarget& target, const std::string& help) {
    verb.addOption("--output", target.file, help).typeName("FILE");
    verb.addFlag("--force", target.mayReplace, "Replace an existing file");
}

void exportText(const Host& host, const ExportTarget& target, const std::string& text, const std::string& label,
                const std::function<void(JSONWriter&)>& encodeFacts) {
    if (target.file.empty()) {
        std::printf("%s\n", safeJSON(text).c_str());
        return;
    }
    writeOutput(target.file, text, target.mayReplace);
    if (!host.json) {
        std::printf("%s  %s\n", safeForTerminal(label).c_str(), safeForTerminal(target.file).c_str());
        return;
    }
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("file", pathText(absolutePath(target.file)));
    encodeFacts(writer);
    writer.endObject();
    printJSON(writer);
}

void encodeFailure(JSONWriter& writer, const ImportError& error) {
    writer.beginObject();
    writer.member("case", error.caseName());
    writer.member("message", error.message());
    writer.endObject();
}

void warnOfRejected(const std::vector<RecipeBundle::Rejected>& rejected) {
    for (const auto& [recipe, error] : rejected) {
        Host::warn("\"" + recipe.name + "\" (" + recipe.fingerprint + "): " + std::string(error.message()));
    }
}

}  // namespace quillmere::app
