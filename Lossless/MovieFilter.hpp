#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace quillmere {

/// What the demuxer gets to see of an MPEG-4 file: the first track of sound and what is needed to play it, each thing
/// in its place and once.
///
/// The demuxer takes memory for as many samples, tracks and edits as a file claims, wherever in the file it finds the
/// claim. So the boxes (ISO/IEC 14496-12, 4.2) are walked first, in memory bounded by the file's size. What is not
/// needed gets another name on its way to the demuxer, which steps over it; what is needed may claim no more than a
/// file of this size can hold. That bounds the demuxer's memory by the file's size.
class MovieFilter {
public:
    /// Walks through the file. Throws `std::runtime_error` if its boxes do not fit into each other, if it has no track
    /// of sound, or if it claims more than one box, sample, or sample of an edit for every 8 of its bytes, and 64 more;
    /// `std::system_error` if it cannot be read.
    MovieFilter(int descriptor, std::uint64_t size);

    /// Hides what is not to be seen in bytes of the file that were read from `offset` on.
    void hide(std::uint64_t offset, std::span<std::uint8_t> bytes) const noexcept;

private:
    struct Box {
        std::array<char, 4> letters{};
        std::uint64_t place = 0;  // of the letters
        std::uint64_t start = 0;  // of the content
        std::uint64_t end = 0;

        [[nodiscard]] std::string_view name() const noexcept { return {letters.data(), letters.size()}; }
    };

    template <class Visit>
    void forEachBox(std::uint64_t start, std::uint64_t end, const Visit& visit);
    [[nodiscard]] Box boxAt(std::uint64_t place, std::uint64_t end);
    [[nodiscard]] std::optional<Box> find(std::string_view name, const Box& parent);

    void showNeeded(std::string_view parent, std::uint64_t start, std::uint64_t end);
    [[nodiscard]] bool isNeeded(const Box& box);
    void check(const Box& box);
    void checkTrack(const Box& track);
    void checkReferences(const Box& references);
    void checkDescription(const Box& descriptions);
    void checkEdits(const Box& edits);
    [[nodiscard]] std::uint64_t samplesOfRuns();
    [[nodiscard]] std::uint64_t entries(const Box& table, std::uint64_t entrySize);
    [[nodiscard]] std::uint64_t trackNumber(const Box& header);
    void claim(std::uint64_t count, std::uint64_t times = 1);
    [[nodiscard]] std::uint64_t number(std::uint64_t place, std::size_t size);

    const int descriptor_;
    const std::uint64_t size_;
    std::uint64_t left_;  // of what may still be claimed
    std::vector<std::uint8_t> window_;
    std::uint64_t windowStart_ = 0;
    std::vector<std::uint64_t> hidden_;  // places of names, in order

    // Of the track that is shown.
    std::optional<std::uint64_t> track_;
    std::optional<std::uint64_t> samples_;
    std::optional<std::uint64_t> chunks_;
    std::uint64_t edits_ = 0;
    std::optional<Box> runs_;  // of chunks with equally many samples
};

}  // namespace quillmere
