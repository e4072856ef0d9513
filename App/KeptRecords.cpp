#include "App/KeptRecords.hpp"

#include <algorithm>
#include <map>
#include <set>

#include "App/ManifestFile.hpp"
#include "App/Pieces.hpp"
#include "QuillmereKit/Platform/AudioFile.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/OwnFolder.hpp"

namespace quillmere::app {
namespace {

namespace fs = std::filesystem;

// Where the object that begins a text ends, texts in it stepped over; nothing if it is cut off or too long.
std::optional<std::size_t> lengthOfObject(std::string_view text) {
    constexpr std::size_t longestEntry = std::size_t{1} << 20;
    text = text.substr(0, longestEntry);
    std::size_t depth = 0;
    bool isText = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (isText) {
            if (c == '\\') ++i;
            if (c == '"') isText = false;
        } else if (c == '"') {
            isText = true;
        } else if (c == '{') {
            ++depth;
        } else if (c == '}' && --depth == 0) {
            return i + 1;
        }
    }
    return std::nullopt;
}

std::optional<LoopArtifact> entryFrom(std::string_view text) {
    try {
        return decodeJSON<LoopArtifact>(text);
    } catch (const JSONError&) {
        return std::nullopt;
    }
}

bool isUnreadableCopy(const std::string& name) { return name.find(".unreadable-") != std::string::npos; }

// The names of the regular files in a folder, the newest copies first: their names tell their times.
std::vector<std::string> filesIn(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : listFolder(folder)) {
        if (entry.kind == FileFacts::Kind::regular) names.push_back(entry.name);
    }
    std::ranges::sort(names, std::greater<>());
    return names;
}

class Finding {
public:
    explicit Finding(const LoopStore& store) : own_(store.directory()) {
        for (const auto& piece : store.all()) {
            known_.insert(piece.id());
            if (const auto file = fileOf(piece)) used_.insert(standardPath(*file));
        }
    }

    void take(const fs::path& source, const std::vector<LoopArtifact>& entries) {
        // Of a fingerprint given twice the last counts, as when a manifest is loaded.
        for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
            auto fingerprint = entry->id();
            if (known_.contains(fingerprint)) continue;
            auto found = locate(*entry, source);
            const auto [place, isNew] = found_.try_emplace(std::move(fingerprint), found);
            if (!isNew && !place->second.problem.empty() && found.problem.empty()) place->second = std::move(found);
        }
    }

    void report(KeptRecords& records) {
        for (auto& [fingerprint, entry] : found_) {
            const auto file = fileOf(entry.piece);
            const bool isTaken = entry.problem.empty() && file && !used_.insert(standardPath(*file)).second;
            if (isTaken) entry.problem = "Its file is another piece's.";
            (entry.problem.empty() ? records.recoverable : records.missing).push_back(std::move(entry));
        }
    }

private:
    [[nodiscard]] KeptRecords::Entry locate(const LoopArtifact& piece, const fs::path& source) const {
        std::vector<fs::path> places;
        if (const auto file = fileOf(piece)) {
            places.push_back(standardPath(*file));
            places.push_back(own_.path() / file->filename());
        }
        const auto name = piece.identity.filename();
        for (const char* extension : {".wav", ".m4a"}) places.push_back(standardPath(own_.path() / (name + extension)));
        std::string problem = "Its audio is not there.";
        for (const auto& place : places) {
            const bool isRecord = place.parent_path() == own_.path() && isLibraryRecord(place.filename().native());
            if (isRecord || !own_.owns(place)) continue;
            if (used_.contains(place)) {
                problem = "Its file is another piece's.";
                continue;
            }
            try {
                AudioFile(own_.open(place), place);
            } catch (const FileError& error) {
                problem = error.what();
                continue;
            }
            const bool isWhereItWas = fileOf(piece) && standardPath(*fileOf(piece)) == place;
            return {isWhereItWas ? piece : piece.withURL(FileURL::fromPath(place)), source, ""};
        }
        if (!places.empty() && !own_.names(places.front()) && fileExists(places.front())) {
            problem = "Its file is not in the library's folder.";
        }
        return {piece, source, problem};
    }

    const OwnFolder own_;
    std::set<std::string> known_;
    std::set<fs::path> used_;
    std::map<std::string, KeptRecords::Entry> found_;
};

}  // namespace

std::vector<LoopArtifact> salvagedEntries(std::string_view text) {
    std::vector<LoopArtifact> entries;
    // A hostile text must not cost more than this; an honest one costs its length, and a little for each damaged place.
    std::size_t budget = 64 * text.size() + (std::size_t{1} << 22);
    while (true) {
        const auto start = text.find('{');
        if (start == std::string_view::npos) return entries;
        text.remove_prefix(start);
        const auto length = lengthOfObject(text);
        const std::size_t cost = length.value_or(std::min(text.size(), std::size_t{1} << 20));
        if (cost > budget) return entries;
        budget -= cost;
        auto entry = length ? entryFrom(text.substr(0, *length)) : std::nullopt;
        text.remove_prefix(entry ? *length : 1);
        if (entry) entries.push_back(std::move(*entry));
    }
}

KeptRecords KeptRecords::find(const LoopStore& store, const std::vector<fs::path>& folders) {
    KeptRecords records;
    Finding finding(store);
    const auto& library = store.directory();
    const auto look = [&](const fs::path& file) {
        try {
            finding.take(file, readManifest(file));
        } catch (const JSONError&) {
            records.unreadable.push_back(file);
            if (const auto text = readManifestText(file)) finding.take(file, salvagedEntries(*text));
        }
    };
    const auto lookIgnoringFailure = [&](const fs::path& file) {
        try {
            look(file);
        } catch (const FileError&) {
            records.unreadable.push_back(file);
        }
    };
    const auto isKnown = [&](const fs::path& place) {
        return std::ranges::find(records.unreadable, place) != records.unreadable.end();
    };
    const auto filesIfPresent = [&](const fs::path& folder) -> std::vector<std::string> {
        try {
            return filesIn(folder);
        } catch (const FileError& error) {
            // A folder that is not there keeps nothing; of any other nobody knows.
            const bool isAbsent =
                error.code() == std::errc::no_such_file_or_directory || error.code() == std::errc::not_a_directory;
            if (!isAbsent && !isKnown(folder)) records.unreadable.push_back(folder);
            return {};
        }
    };
    lookIgnoringFailure(manifestFile(library));
    for (const auto& name : filesIfPresent(library)) {
        const bool isCopy = name.starts_with("manifest.unreadable-") || name.starts_with("manifest.before-");
        if (isCopy) lookIgnoringFailure(library / name);
    }
    std::set<fs::path> places(folders.begin(), folders.end());
    places.insert(library);
    for (const auto& place : places) {
        for (const auto& name : filesIfPresent(place)) {
            const auto file = place / name;
            if (isUnreadableCopy(name) && !isKnown(file)) records.unreadable.push_back(file);
        }
    }
    finding.report(records);
    return records;
}

}  // namespace quillmere::app
