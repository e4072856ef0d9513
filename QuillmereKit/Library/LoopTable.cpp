#include "QuillmereKit/Library/LoopTable.hpp"

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"

namespace quillmere {
namespace {

constexpr auto byKey = [](const StoredLoop* a, const StoredLoop* b) { return a->key < b->key; };

// The piece as compact JSON, or nothing if it cannot be encoded.
std::optional<std::string> encoded(const LoopArtifact& artifact) {
    try {
        return encodeJSON(artifact, JSONWriter::Form::compact);
    } catch (const EncodingError&) {
        return std::nullopt;
    }
}

}  // namespace

const std::vector<StoredLoop*>& LoopTable::mood(std::string_view moodID) const noexcept {
    static const std::vector<StoredLoop*> none;
    const auto found = moods_.find(moodID);
    return found == moods_.end() ? none : found->second;
}

std::vector<const StoredLoop*> LoopTable::inOrder() const {
    std::vector<const StoredLoop*> loops;
    loops.reserve(loops_.size());
    forEach([&](const StoredLoop& loop) { loops.push_back(&loop); });
    std::ranges::sort(loops, byKey);
    return loops;
}

bool LoopTable::fill(const JSONValue& manifest, const std::function<std::optional<Place>(const FileURL&)>& placeOf) {
    LoopTable filled;
    std::size_t entries = 0;
    std::vector<std::unique_ptr<StoredLoop>> loops;
    LoopArtifact artifact{.identity = {}, .url = FileURL::fromPath("/")};  // each entry uses the room of the one before
    manifest.forEachElement([&](const JSONValue& entry) {
        decodeInto(entry, artifact);
        ++entries;
        const auto place = placeOf(artifact.url);
        if (!place) return;
        const auto key = LoopKey::of(artifact.identity);
        loops.push_back(std::make_unique<StoredLoop>(key, std::move(artifact), filled.texts_));
        loops.back()->isInside = place->isInside;
        loops.back()->isPlain = place->isPlain;
    });

    filled.loops_.reserve(loops.size());
    std::vector<StoredLoop*> inOrderOfEntries;
    inOrderOfEntries.reserve(loops.size());
    for (auto& loop : loops) {
        if (auto* const earlier = filled.loops_.find(loop->key)) {
            *earlier = std::move(*loop);
        } else {
            inOrderOfEntries.push_back(&filled.loops_.insert(std::move(loop)));
        }
    }

    SharedTexts::Text moodID;
    std::vector<StoredLoop*>* mood = nullptr;
    for (auto* loop : inOrderOfEntries) {
        if (mood == nullptr || loop->moodID != moodID) {
            moodID = loop->moodID;
            mood = &filled.moods_[*moodID];
        }
        mood->push_back(loop);
    }
    for (auto& [id, members] : filled.moods_) std::ranges::sort(members, byKey);
    filled.isManifestStale_ = !loops.empty();
    *this = std::move(filled);
    return count() == entries;
}

void LoopTable::putAll(std::span<Item> items) {
    try {
        // Once that is done nothing can throw: the table and the moods' lists have room, and a piece is moved without
        // allocating.
        for (auto& [loop, text] : madeReady(items)) take(std::move(loop), text);
    } catch (...) {
        removeEmptyMoods();  // of pieces that found no room after all
        throw;
    }
}

std::vector<LoopTable::Ready> LoopTable::madeReady(std::span<Item> items) {
    std::vector<Ready> ready;
    ready.reserve(items.size());
    for (auto& item : items) {
        auto text = encoded(item.artifact);
        const auto key = LoopKey::of(item.artifact.identity);
        auto loop = std::make_unique<StoredLoop>(key, std::move(item.artifact), texts_);
        loop->isInside = item.place.isInside;
        loop->isPlain = item.place.isPlain;
        loop->isEncodable = text.has_value();

        auto& mood = moods_[*loop->moodID];
        const std::size_t needed = mood.size() + items.size();
        if (needed > mood.capacity()) mood.reserve(std::max(needed, 2 * mood.size() + 1));
        ready.push_back({std::move(loop), std::move(text)});
    }
    loops_.reserve(count() + items.size());
    return ready;
}

void LoopTable::removeEmptyMoods() noexcept {
    std::erase_if(moods_, [](const auto& mood) { return mood.second.empty(); });
}

void LoopTable::take(std::unique_ptr<StoredLoop> loop, const std::optional<std::string>& text) noexcept {
    auto& mood = moods_.find(*loop->moodID)->second;
    auto* place = loops_.find(loop->key);
    const bool isNew = place == nullptr;
    if (isNew) {
        place = &loops_.insert(std::move(loop));
    } else {
        std::erase(moods_.find(*place->moodID)->second, place);
        if (!place->isEncodable) --unencodable_;
        *place = std::move(*loop);
        isManifestStale_ = true;
    }
    mood.insert(std::ranges::upper_bound(mood, place, byKey), place);
    if (!place->isEncodable) ++unencodable_;
    if (isNew && place->isInside && text) appendToManifest(*place, *text);
}

std::size_t LoopTable::remove(std::span<const LoopKey> keys) noexcept {
    std::size_t count = 0;
    for (const auto key : keys) {
        auto* const loop = loops_.find(key);
        if (loop == nullptr || loop->isLeaving) continue;
        loop->isLeaving = true;
        if (!loop->isEncodable) --unencodable_;
        ++count;
    }
    if (count == 0) return 0;
    for (auto& [moodID, loops] : moods_) std::erase_if(loops, [](const StoredLoop* loop) { return loop->isLeaving; });
    removeEmptyMoods();
    loops_.removeLeaving();
    forEach([](const StoredLoop& loop) { loop.useTexts(); });
    texts_.sweep();
    isManifestStale_ = true;
    return count;
}

const std::string& LoopTable::manifest() {
    if (isManifestStale_) rebuildManifest();
    return manifest_;
}

void LoopTable::appendToManifest(StoredLoop& loop, std::string_view text) {
    if (isManifestStale_) return;
    const bool isFirst = manifest_.size() == 2;
    if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
        isManifestStale_ = true;
        return;
    }
    try {
        const std::size_t needed = manifest_.size() + text.size() + 1;
        if (needed > manifest_.capacity()) manifest_.reserve(std::max(needed, manifest_.size() + manifest_.size() / 2));
    } catch (const std::bad_alloc&) {
        isManifestStale_ = true;  // the piece is in the table; the next save tries again
        return;
    }
    manifest_.pop_back();
    if (!isFirst) manifest_ += ',';
    loop.textStart = manifest_.size();
    loop.textLength = static_cast<std::uint32_t>(text.size());
    manifest_ += text;
    manifest_ += ']';
}

void LoopTable::rebuildManifest() {
    struct Part {
        StoredLoop* loop;
        std::size_t start;
        std::size_t length;
    };
    std::vector<Part> parts;
    parts.reserve(loops_.size());
    loops_.forEach([&](StoredLoop& loop) {
        if (loop.isInside && loop.isEncodable) parts.push_back({&loop, 0, 0});
    });
    std::ranges::sort(parts, [](const Part& a, const Part& b) { return a.loop->key < b.loop->key; });

    JSONWriter writer(JSONWriter::Form::compact);
    writer.beginArray();
    bool isFirst = true;
    for (auto& part : parts) {
        part.start = writer.text().size() + (isFirst ? 0 : 1);
        isFirst = false;
        if (part.loop->textLength > 0) {
            writer.raw(std::string_view(manifest_).substr(part.loop->textStart, part.loop->textLength));
        } else {
            encode(writer, part.loop->artifact());
        }
        part.length = writer.text().size() - part.start;
    }
    writer.endArray();

    manifest_ = writer.take();
    for (const auto& part : parts) {
        const bool isKept = part.length <= std::numeric_limits<std::uint32_t>::max();
        part.loop->textStart = part.start;
        part.loop->textLength = isKept ? static_cast<std::uint32_t>(part.length) : 0;
    }
    isManifestStale_ = false;
}

std::string LoopTable::prettyManifest() const {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginArray();
    for (const auto* loop : inOrder()) {
        if (loop->isEncodable) encode(writer, loop->artifact());
    }
    writer.endArray();
    return writer.take();
}

std::optional<std::string> LoopTable::unencodableText() const {
    if (unencodable_ == 0) return std::nullopt;
    std::string text = "Left out of the library's manifest, because they cannot be written:";
    for (const auto* loop : inOrder()) {
        if (loop->isEncodable) continue;
        try {
            static_cast<void>(encodeJSON(loop->artifact(), JSONWriter::Form::compact));
        } catch (const EncodingError& error) {
            text += " " + loop->identity().filename() + " (" + error.what() + ")";
        }
    }
    return text;
}

}  // namespace quillmere
