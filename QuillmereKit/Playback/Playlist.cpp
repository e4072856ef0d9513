#include "QuillmereKit/Playback/Playlist.hpp"

#include <algorithm>
#include <numeric>
#include <utility>

namespace quillmere {
namespace {

void shuffle(std::vector<std::size_t>& order, SeededGenerator& rng) {
    for (std::size_t i = 0; i + 1 < order.size(); ++i) {
        std::swap(order[i], order[i + static_cast<std::size_t>(rng.below(order.size() - i))]);
    }
}

}  // namespace

Playlist::Playlist(std::vector<LoopArtifact> segments, std::uint64_t shuffleSeed)
    : segments_(std::move(segments)), order_(segments_.size()) {
    constexpr std::uint64_t seedOfZero = 0x9e3779b97f4a7c15;
    rng_.state = shuffleSeed == 0 ? seedOfZero : shuffleSeed;
    std::iota(order_.begin(), order_.end(), std::size_t{0});
    fingerprints_.reserve(segments_.size());
    for (const LoopArtifact& segment : segments_) fingerprints_.push_back(segment.identity.fingerprint());
}

double Playlist::totalSeconds() const noexcept {
    double sum = 0;
    for (const LoopArtifact& segment : segments_) sum += segment.seconds;
    return sum;
}

const LoopArtifact* Playlist::current() const noexcept {
    return cursor_ < order_.size() ? &segments_[order_[cursor_]] : nullptr;
}

const LoopArtifact* Playlist::upcoming() const noexcept {
    return order_.size() < 2 ? nullptr : &segments_[order_[(cursor_ + 1) % order_.size()]];
}

void Playlist::append(LoopArtifact segment) {
    std::string fingerprint = segment.identity.fingerprint();
    if (std::ranges::find(fingerprints_, fingerprint) != fingerprints_.end()) return;
    segments_.push_back(std::move(segment));
    fingerprints_.push_back(std::move(fingerprint));
    order_.push_back(segments_.size() - 1);
}

const LoopArtifact* Playlist::advance() {
    if (order_.empty()) return nullptr;
    ++cursor_;
    if (cursor_ >= order_.size()) {
        cursor_ = 0;
        ++rounds_;
        reshuffle();
    }
    return current();
}

void Playlist::reshuffle() {
    if (order_.size() < 3) return;
    const std::size_t last = order_.back();
    shuffle(order_, rng_);
    if (order_.front() == last) std::swap(order_.front(), order_.back());
}

}  // namespace quillmere
