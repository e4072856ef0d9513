#include "Lossless/MovieFilter.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "Lossless/Failure.hpp"

namespace quillmere {
namespace {

constexpr std::string_view wholeFile = "file";
constexpr std::string_view description = "form";  // of the samples: its own box is named after their codec

/// A box that is needed where it lies directly in its parent; the first there, unless it may be repeated.
struct Needed {
    enum class Kind { shortContent, longContent, list };
    std::string_view parent;
    std::string_view name;
    Kind kind = Kind::shortContent;
    bool isRepeated = false;
};

constexpr auto shortContent = Needed::Kind::shortContent;
constexpr auto longContent = Needed::Kind::longContent;
constexpr auto list = Needed::Kind::list;
constexpr auto needed = std::to_array<Needed>({
    {wholeFile, "ftyp"},
    {wholeFile, "moov", list},
    {wholeFile, "mdat", longContent, true},
    {wholeFile, "moof", list, true},
    {"moov", "mvhd"},
    {"moov", "trak", longContent},  // a list too, but seen to by itself
    {"moov", "mvex", list},
    {"mvex", "trex", shortContent, true},
    {"trak", "tkhd"},
    {"trak", "edts", list},
    {"trak", "mdia", list},
    {"edts", "elst", longContent},
    {"mdia", "mdhd"},
    {"mdia", "hdlr"},
    {"mdia", "minf", list},
    {"minf", "stbl", list},
    {"stbl", "stsd"},
    {"stbl", "stts", longContent},
    {"stbl", "stsc", longContent},
    {"stbl", "stsz", longContent},
    {"stbl", "stz2", longContent},
    {"stbl", "stco", longContent},
    {"stbl", "co64", longContent},
    {description, "alac"},
    {description, "chan"},
    {description, "wave", list},
    {"wave", "frma"},
    {"wave", "alac"},
    {"moof", "traf", list, true},
    {"traf", "tfhd"},
    {"traf", "tfdt"},
    {"traf", "trun", longContent, true},
});

constexpr std::uint64_t mostShortBytes = 1 << 16;
constexpr std::string_view otherName = "skip";  // the standard's name for what is of no use

constexpr std::uint64_t bytesOfAClaim = 8;
constexpr std::uint64_t claimsOfAnyFile = 64;

constexpr std::uint64_t headerSize = 8;
constexpr std::uint64_t longHeaderSize = 16;
constexpr std::uint64_t versionSize = 4;  // with flags, in front of most contents

void requireWhole(bool isWhole) { require(isWhole, "the file's boxes are damaged"); }

}  // namespace

MovieFilter::MovieFilter(int descriptor, std::uint64_t size)
    : descriptor_(descriptor), size_(size), left_(size / bytesOfAClaim + claimsOfAnyFile) {
    requireWhole(size_ >= headerSize);
    // A demuxer looks in front of the first box for tags that begin with other letters than a short box's length.
    const Box first = boxAt(0, size_);
    requireWhole(first.name() == "ftyp" && first.end <= mostShortBytes);
    showNeeded(wholeFile, 0, size_);
    require(track_.has_value(), "no audio in the file");
}

void MovieFilter::hide(std::uint64_t offset, std::span<std::uint8_t> bytes) const noexcept {
    // A name may lie across the borders of what was read.
    const auto before = std::min<std::uint64_t>(offset, otherName.size() - 1);
    for (auto place = std::ranges::lower_bound(hidden_, offset - before);
         place != hidden_.end() && *place < offset + bytes.size(); ++place) {
        for (std::size_t i = 0; i < otherName.size(); ++i) {
            const auto letter = *place + i;
            if (letter < offset || letter - offset >= bytes.size()) continue;
            bytes[static_cast<std::size_t>(letter - offset)] = static_cast<std::uint8_t>(otherName[i]);
        }
    }
}

template <class Visit>
void MovieFilter::forEachBox(std::uint64_t start, std::uint64_t end, const Visit& visit) {
    while (start < end) {
        if (end - start < headerSize) {
            // A zero of four bytes ends some lists. Any other rest is read together with what follows.
            requireWhole(end - start >= 4 && number(start, 4) == 0);
            return;
        }
        const Box box = boxAt(start, end);
        if (!visit(box)) return;
        start = box.end;
    }
}

MovieFilter::Box MovieFilter::boxAt(std::uint64_t place, std::uint64_t end) {
    const auto header = number(place, headerSize);
    Box box{.place = place + 4, .start = place + headerSize, .end = end};
    for (std::size_t i = 0; i < box.letters.size(); ++i)
        box.letters[i] = static_cast<char>(header >> (24 - 8 * i) & 0xFF);
    std::uint64_t size = header >> 32;
    if (size == 0) return box;  // to the end of what it lies in
    if (size == 1) {
        requireWhole(end - place >= longHeaderSize);
        size = number(place + headerSize, 8);
        box.start = place + longHeaderSize;
    }
    requireWhole(size >= box.start - place && size <= end - place);
    box.end = place + size;
    return box;
}

std::optional<MovieFilter::Box> MovieFilter::find(std::string_view name, const Box& parent) {
    std::optional<Box> found;
    forEachBox(parent.start, parent.end, [&](const Box& box) {
        if (box.name() == name) found = box;
        return !found;
    });
    return found;
}

void MovieFilter::showNeeded(std::string_view parent, std::uint64_t start, std::uint64_t end) {
    static_assert(needed.size() <= 64);
    std::uint64_t seen = 0;
    forEachBox(start, end, [&](const Box& box) {
        claim(1);
        const auto* const rule = std::ranges::find_if(
            needed, [&](const Needed& each) { return each.parent == parent && each.name == box.name(); });
        const auto bit = rule == needed.end() ? 0 : std::uint64_t{1} << (rule - needed.begin());
        if (box.name() == "dinf" && parent == "minf") checkReferences(box);
        if (bit == 0 || ((seen & bit) != 0 && !rule->isRepeated) || !isNeeded(box)) {
            hidden_.push_back(box.place);
            return true;
        }
        seen |= bit;
        requireWhole(rule->kind != shortContent || box.end - box.start <= mostShortBytes);
        if (rule->kind == list) showNeeded(rule->name, box.start, box.end);
        check(box);
        return true;
    });
}

// What only some boxes of a name are: the first track of sound, and its parts of the fragments.
bool MovieFilter::isNeeded(const Box& box) {
    if (box.name() == "trak") {
        const auto media = find("mdia", box);
        const auto handler = media ? find("hdlr", *media) : std::nullopt;
        constexpr std::uint64_t kind = versionSize + 4;
        constexpr std::uint64_t sound = 0x736F756E;  // "soun"
        return handler && handler->end - handler->start >= kind + 4 && number(handler->start + kind, 4) == sound;
    }
    if (box.name() == "traf") {
        requireWhole(track_.has_value());
        const auto header = find("tfhd", box);
        requireWhole(header && header->end - header->start >= versionSize + 4);
        return number(header->start + versionSize, 4) == track_;
    }
    if (box.name() == "wave") {
        // A demuxer steps over what it takes for the old form, which has no list in it.
        const auto format = find("frma", box);
        return format && format->place == box.start + 4 && format->start == box.start + headerSize &&
               box.end - format->end >= headerSize;
    }
    // Of the two forms of some tables only one.
    if (box.name() == "stco" || box.name() == "co64") return !chunks_;
    if (box.name() == "stsz" || box.name() == "stz2") return !samples_;
    return true;
}

void MovieFilter::check(const Box& box) {
    if (box.name() == "trak") checkTrack(box);
    if (box.name() == "stsd") checkDescription(box);
    if (box.name() == "elst") checkEdits(box);
    if (box.name() == "stsz" || box.name() == "stz2") {
        requireWhole(box.end - box.start >= versionSize + 8);
        samples_ = number(box.start + versionSize + 4, 4);
    }
    if (box.name() == "stts") static_cast<void>(entries(box, 8));
    if (box.name() == "stco") chunks_ = entries(box, 4);
    if (box.name() == "co64") chunks_ = entries(box, 8);
    if (box.name() == "stsc") runs_ = box;
    if (box.name() == "trun") claim(entries(box, 0));
}

void MovieFilter::checkTrack(const Box& track) {
    const auto header = find("tkhd", track);
    requireWhole(header.has_value());
    track_ = trackNumber(*header);
    showNeeded("trak", track.start, track.end);
    claim(std::max(samples_.value_or(0), samplesOfRuns()), std::max<std::uint64_t>(edits_, 1));
}

// Where the audio lies. Nothing but the file itself is read, so this needs not be shown.
void MovieFilter::checkReferences(const Box& references) {
    const auto table = find("dref", references);
    if (!table) return;
    requireWhole(table->end - table->start >= versionSize + 4);
    forEachBox(table->start + versionSize + 4, table->end, [&](const Box& entry) {
        claim(1);
        const bool isAlias = entry.name() == "alis";  // of a file
        const bool isHere = isAlias && entry.end > entry.start + 3 && (number(entry.start + 3, 1) & 1) != 0;
        require(!isAlias || isHere, "the audio lies in another file");
        return true;
    });
}

void MovieFilter::checkDescription(const Box& descriptions) {
    // Of each version of the box: the bytes before the boxes in it (QuickTime File Format, "Sound Sample Description").
    constexpr auto lengths = std::to_array<std::uint64_t>({28, 28 + 16, 28 + 36});
    constexpr std::uint64_t versionPlace = 8;
    requireWhole(entries(descriptions, headerSize) == 1 && number(descriptions.start, 1) == 0);
    const Box form = boxAt(descriptions.start + versionSize + 4, descriptions.end);
    requireWhole(form.end - form.start >= versionPlace + 2);
    const auto version = number(form.start + versionPlace, 2);
    requireWhole(version < lengths.size());
    const auto length = lengths.at(static_cast<std::size_t>(version));
    requireWhole(form.end - form.start >= length);
    showNeeded(description, form.start + length, form.end);
}

void MovieFilter::checkEdits(const Box& edits) {
    constexpr std::uint64_t shortSize = 12;
    constexpr std::uint64_t longSize = 20;
    requireWhole(edits.end > edits.start);
    const bool isLong = number(edits.start, 1) == 1;
    const auto entrySize = isLong ? longSize : shortSize;
    const auto count = entries(edits, entrySize);
    requireWhole(count * entrySize == edits.end - edits.start - versionSize - 4);  // else all there are would count
    for (std::uint64_t i = 0; i < count; ++i) {
        // Its length, and where it starts in the track; -1 stands for a pause.
        const std::size_t numberSize = isLong ? 8 : 4;
        const auto start = number(edits.start + versionSize + 4 + i * entrySize + numberSize, numberSize);
        if (start != (isLong ? std::numeric_limits<std::uint64_t>::max() : std::numeric_limits<std::uint32_t>::max()))
            ++edits_;
    }
}

// What the chunks hold together.
std::uint64_t MovieFilter::samplesOfRuns() {
    if (!runs_) return 0;
    constexpr std::uint64_t entrySize = 12;
    constexpr std::uint64_t most = std::numeric_limits<std::int32_t>::max();
    const auto count = entries(*runs_, entrySize);
    const auto end = chunks_.value_or(0) + 1;
    const auto field = [&](std::uint64_t entry, std::uint64_t index) {
        const auto value = number(runs_->start + versionSize + 4 + entry * entrySize + index * 4, 4);
        requireWhole(value >= 1 && value <= most);  // else a demuxer would put something else there
        return value;
    };
    std::uint64_t samples = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto first = field(i, 0);
        const auto next = i + 1 < count ? field(i + 1, 0) : end;
        static_cast<void>(field(i, 2));
        requireWhole(first < next && next <= end);
        requireWhole(!__builtin_add_overflow(samples, (next - first) * field(i, 1), &samples));
    }
    return samples;
}

// How many entries a table has, all of which are there.
std::uint64_t MovieFilter::entries(const Box& table, std::uint64_t entrySize) {
    const auto length = table.end - table.start;
    requireWhole(length >= versionSize + 4);
    const auto count = number(table.start + versionSize, 4);
    requireWhole(count * entrySize <= length - versionSize - 4);
    return count;
}

std::uint64_t MovieFilter::trackNumber(const Box& header) {
    requireWhole(header.end > header.start);
    constexpr std::uint64_t place = 12;
    constexpr std::uint64_t longPlace = 20;
    const auto offset = number(header.start, 1) == 1 ? longPlace : place;
    requireWhole(header.end - header.start >= offset + 4);
    return number(header.start + offset, 4);
}

void MovieFilter::claim(std::uint64_t count, std::uint64_t times) {
    std::uint64_t all = 0;
    const bool fits = !__builtin_mul_overflow(count, times, &all) && all <= left_;
    require(fits, "the file claims more than it can hold");
    left_ -= all;
}

// A big-endian number of up to eight bytes.
std::uint64_t MovieFilter::number(std::uint64_t place, std::size_t size) {
    requireWhole(place <= size_ && size <= size_ - place);
    if (place < windowStart_ || place + size > windowStart_ + window_.size()) {
        constexpr std::size_t windowSize = 4096;
        window_.resize(windowSize);
        windowStart_ = place;
        std::size_t filled = 0;
        while (filled < size) {
            const ssize_t count = ::pread(descriptor_, window_.data() + filled, window_.size() - filled,
                                          static_cast<off_t>(place + filled));
            if (count < 0 && errno == EINTR) continue;
            require(count >= 0, count < 0 ? errno : 0, "the file cannot be read");
            requireWhole(count > 0);
            filled += static_cast<std::size_t>(count);
        }
        window_.resize(filled);
    }
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value = value << 8 | window_[static_cast<std::size_t>(place - windowStart_) + i];
    return value;
}

}  // namespace quillmere
